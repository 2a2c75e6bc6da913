list(APPEND KEL_LIBRARY_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/keltime.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kel_time_check.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kel_time_format.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kel_time_tokens.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kel_time_expand.cpp)
