// kelbench: the library's side of the benchmarks. Each command does one
// measured operation as a device application would and prints one line:
//
//   seconds=<s> bytes=<n> pool_peak=<bytes> lib_heap=<calls> libc_heap=<calls>
//
// seconds covers the operation only (process start and file preparation
// are outside). pool_peak is the most memory partition 0 held at once.
// lib_heap counts heap calls (malloc family, operator new) made directly
// from the library's code, which must stay 0; libc_heap counts those made
// by the C library on the library's behalf (name lookup, stdio) while a
// library call ran.
//
//   kelbench ftp-store    host port user pass localfile remotename
//   kelbench ftp-retrieve host port user pass remotename localfile
//   kelbench ftp-small    host port user pass remotename      (1 KiB)
//   kelbench pop3         host port user pass number localfile
//   kelbench smtp         host port sender recipient attachmentfile
//   kelbench codec        mebibytes rounds   (MD5 and Base64 against OpenSSL)
//   kelbench smb          serveraddress password mebibytes localfile
//                         (prints its own fields, see smbBench)

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/md5.h>

#include "kel_os.h"
#include "kel_status.h"
#include "kelftpc.h"
#include "kelhost.h"
#include "kelmail.h"
#include "kelsmbc.h"

// ---- accounting: the pool's peak and heap calls ----

namespace {

size_t poolPeak = 0;
bool measuring = false;
size_t libHeap = 0, libcHeap = 0;
thread_local bool inHook = false;

bool fromLibrary(void *caller) {
  Dl_info info;
  return dladdr(caller, &info) != 0 && info.dli_fname != nullptr &&
         strstr(info.dli_fname, "libtarvikel") != nullptr;
}

void countHeap(void *caller) {
  if (!measuring || inHook) return;
  inHook = true;
  if (fromLibrary(caller)) libHeap++;
  else libcHeap++;
  inHook = false;
}

void notePool() { poolPeak = std::max(poolPeak, kelHostPoolBytesInUse()); }

template <typename F> F next(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

// The host allocator, seen on its way from the library to libkelhost.
int orvOSWOrgAllocMemPart(int partition, void **result, uint32_t size) {
  static auto real = next<int (*)(int, void **, uint32_t)>("orvOSWOrgAllocMemPart");
  int r = real(partition, result, size);
  notePool();
  return r;
}

void *orvOSWSubAllocMem(uint32_t size) {
  static auto real = next<void *(*)(uint32_t)>("orvOSWSubAllocMem");
  void *r = real(size);
  notePool();
  return r;
}

// The heap, through glibc's own entry points.
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);

void *malloc(size_t size) {
  countHeap(__builtin_return_address(0));
  return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  countHeap(__builtin_return_address(0));
  return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
  countHeap(__builtin_return_address(0));
  return __libc_realloc(block, size);
}

}  // extern "C"

void *operator new(size_t size) {
  countHeap(__builtin_return_address(0));
  void *p = __libc_malloc(size ? size : 1);
  if (p == nullptr) abort();
  return p;
}
void *operator new[](size_t size) { return operator new(size); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }

namespace {

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

[[noreturn]] void fail(const char *what, unsigned long code) {
  fprintf(stderr, "kelbench: %s failed: 0x%08lx\n", what, code);
  exit(1);
}

void check(const char *what, kelResult r) {
  if (r != 0) fail(what, r);
}

void start() {
  poolPeak = kelHostPoolBytesInUse();
  libHeap = libcHeap = 0;
  measuring = true;
}

void report(double seconds, unsigned long long bytes) {
  measuring = false;
  printf("seconds=%.6f bytes=%llu pool_peak=%zu lib_heap=%zu libc_heap=%zu\n", seconds, bytes,
         poolPeak, libHeap, libcHeap);
}

const size_t kChunk = 256 * 1024;

kelFTPCSession *ftpLogin(char **argv) {
  kelFTPCSession *s = kelFTPCProtoOpen(atoi(argv[3]), 30000);
  if (s == nullptr) fail("kelFTPCProtoOpen", 0);
  check("kelFTPCProtoConnect", kelFTPCProtoConnect(s, argv[2], argv[4], argv[5]));
  return s;
}

int ftpStore(char **argv) {
  int fd = open(argv[6], O_RDONLY);
  if (fd < 0) fail("open", 0);
  std::vector<char> buffer(kChunk);
  unsigned long long total = 0;
  start();
  double t0 = now();
  kelFTPCSession *s = ftpLogin(argv);
  check("kelFTPCProtoPutOpen", kelFTPCProtoPutOpen(s, "", argv[7], 1, 1, 3));
  for (ssize_t n; (n = read(fd, buffer.data(), kChunk)) > 0; total += static_cast<size_t>(n))
    check("kelFTPCProtoPutData", kelFTPCProtoPutData(s, buffer.data(), static_cast<uint32_t>(n)));
  check("kelFTPCProtoPutClose", kelFTPCProtoPutClose(s));
  check("kelFTPCProtoClose", kelFTPCProtoClose(s));
  double t1 = now();
  close(fd);
  report(t1 - t0, total);
  return 0;
}

int ftpRetrieve(char **argv) {
  int fd = open(argv[7], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) fail("open", 0);
  std::vector<char> buffer(kChunk);
  unsigned long long total = 0;
  start();
  double t0 = now();
  kelFTPCSession *s = ftpLogin(argv);
  check("kelFTPCProtoGetOpen", kelFTPCProtoGetOpen(s, "", argv[6], 1, 1, 3));
  for (;;) {
    uint32_t count = 0;
    check("kelFTPCProtoGetData", kelFTPCProtoGetData(s, buffer.data(), kChunk, &count));
    if (count == 0) break;
    if (write(fd, buffer.data(), count) != static_cast<ssize_t>(count)) fail("write", 0);
    total += count;
  }
  check("kelFTPCProtoGetClose", kelFTPCProtoGetClose(s));
  check("kelFTPCProtoClose", kelFTPCProtoClose(s));
  double t1 = now();
  close(fd);
  report(t1 - t0, total);
  return 0;
}

int ftpSmall(char **argv) {
  char data[1024];
  for (size_t i = 0; i < sizeof data; i++) data[i] = static_cast<char>('a' + i % 26);
  start();
  double t0 = now();
  kelFTPCSession *s = ftpLogin(argv);
  check("kelFTPCProtoPutOpen", kelFTPCProtoPutOpen(s, "", argv[6], 1, 1, 3));
  check("kelFTPCProtoPutData", kelFTPCProtoPutData(s, data, sizeof data));
  check("kelFTPCProtoPutClose", kelFTPCProtoPutClose(s));
  check("kelFTPCProtoClose", kelFTPCProtoClose(s));
  double t1 = now();
  report(t1 - t0, sizeof data);
  return 0;
}

// RETR of one message, lines written to a file with the dot stuffing
// removed, as a mail reader would keep it.
int pop3(char **argv) {
  kelHostStatusSetText(KEL_STATUS_POP3_SERVER, argv[2]);
  kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, static_cast<uint32_t>(atoi(argv[3])));
  kelHostStatusSetText(KEL_STATUS_POP3_USER, argv[4]);
  kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, argv[5]);
  FILE *out = fopen(argv[7], "w");
  if (out == nullptr) fail("fopen", 0);
  static char outBuffer[1 << 16];  // stdio's own buffer would be heap
  setvbuf(out, outBuffer, _IOFBF, sizeof outBuffer);
  char line[1024];
  unsigned long long total = 0;
  int32_t s = -1;
  start();
  double t0 = now();
  check("kelMAILConnectPop3Server", kelMAILConnectPop3Server(&s));
  check("kelMAILLoginPop3Server", kelMAILLoginPop3Server(s));
  check("kelMAILStartMailData", kelMAILStartMailData(s, atoi(argv[6])));
  for (;;) {
    check("kelMAILRecvOneLinePop3", kelMAILRecvOneLinePop3(s, line, sizeof line));
    if (strcmp(line, ".\r\n") == 0) break;
    const char *text = line[0] == '.' ? line + 1 : line;
    size_t n = strlen(text);
    total += n;
    fwrite(text, 1, n, out);
  }
  check("kelMAILDisconnectPop3Server", kelMAILDisconnectPop3Server(s));
  double t1 = now();
  fclose(out);
  report(t1 - t0, total);
  return 0;
}

// One message: a short text part and the file as a Base64 attachment in
// lines of 76 characters, handed over 1024 lines per call. The file is
// encoded before the clock starts, as curl gets the encoded message.
int smtp(char **argv) {
  kelHostPoolSetSize(64u << 20);
  kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
  kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, 1);
  kelHostStatusSetText(KEL_STATUS_SMTP_SERVER, argv[2]);
  kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, static_cast<uint32_t>(atoi(argv[3])));
  kelHostStatusSetText(KEL_STATUS_HELO_NAME, "kel-device");
  kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, argv[4]);
  kelHostStatusSetText(KEL_STATUS_PRINTER, "kel-printer");
  int fd = open(argv[6], O_RDONLY);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) fail("open", 0);
  std::vector<unsigned char> file(static_cast<size_t>(st.st_size));
  if (read(fd, file.data(), file.size()) != st.st_size) fail("read", 0);
  close(fd);
  char *encoded = kelMAILEncodeBase64(file.data(), static_cast<uint32_t>(file.size()));
  if (encoded == nullptr) fail("kelMAILEncodeBase64", 0);
  std::vector<std::string> chunks;
  const size_t perCall = 76 * 1024;
  for (size_t at = 0, length = strlen(encoded); at < length; at += perCall) {
    std::string &lines = chunks.emplace_back();
    for (size_t i = at; i < std::min(length, at + perCall); i += 76)
      lines.append(encoded + i, std::min<size_t>(76, length - i)).append("\r\n");
  }
  orvOSWOrgFreeMemPart(0, encoded);
  kelMAILSmtpRequest request = {argv[5], nullptr, nullptr, "bench from %printer"};
  kelMAILSmtpPart text = {"", KEL_MAIL_PART_KIND_TEXT}, attachment = {"data.bin", 2};
  const char body[] = "The attachment follows.\r\n";
  start();
  double t0 = now();
  kelMAILSession *s = nullptr;
  check("kelMAILStartSmtp", kelMAILStartSmtp(&request, &s));
  check("kelMAILOpenSmtp", kelMAILOpenSmtp(s, &text));
  check("kelMAILWriteSmtp", kelMAILWriteSmtp(s, body, sizeof body - 1));
  check("kelMAILCloseSmtp", kelMAILCloseSmtp(s));
  check("kelMAILOpenSmtp", kelMAILOpenSmtp(s, &attachment));
  for (const std::string &lines : chunks)
    check("kelMAILWriteSmtp", kelMAILWriteSmtp(s, lines.data(), static_cast<int32_t>(lines.size())));
  check("kelMAILCloseSmtp", kelMAILCloseSmtp(s));
  check("kelMAILEndSmtp", kelMAILEndSmtp(s));
  double t1 = now();
  report(t1 - t0, file.size());
  return 0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The same statistic as a throughput (bytes over the whole time), so that
// the machine's other work weighs on both sides alike.
double mean(const std::vector<double> &v) {
  double sum = 0;
  for (double x : v) sum += x;
  return sum / static_cast<double>(v.size());
}

// SMB against a file server of the core dialect: the given MiB up and down
// through the application calls, in 8 rounds; after each round 128 single
// requests, each timed alone (a write of one 4038-byte chunk, a 4090-byte
// request; a read of one 4096-byte chunk), give the stop-and-wait limit on
// the same server at that moment: the chunk per mean round trip. Prints
// the medians of the rounds' throughputs and shares and the pool's peak.
int smbBench(char **argv) {
  const std::string server = std::string(argv[2]) + "\\SHARE";
  const int rounds = 8, singles = 128;
  const size_t part = (static_cast<size_t>(atoi(argv[4])) << 20) / rounds;
  std::vector<unsigned char> data(part);
  for (size_t i = 0; i < part; i++) data[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
  kelSMBCServerRecord record = {server.c_str(), "KELBENCH", argv[3]};
  kelSMBCFileRecord file = {"\\", "bench\\big.bin", argv[5]};
  kelSMBCSession *s = nullptr;
  std::vector<double> upRate, upShare, downRate, downShare, single;
  for (auto *v : {&upRate, &upShare, &downRate, &downShare}) v->reserve(rounds + 1);
  single.reserve(singles);  // the benchmark's own memory, taken before the count starts
  start();
  check("kelSMBCStart", kelSMBCStart(&record, &s, &file));
  check("kelSMBCWriteOpen", kelSMBCWriteOpen(s, &file));
  size_t written = 0;
  for (int r = 0; r < rounds; r++) {
    double t0 = now();
    check("kelSMBCWrite", kelSMBCWrite(s, data.data(), static_cast<uint32_t>(part)));
    double rate = static_cast<double>(part) / (now() - t0) / 1e6;
    single.clear();
    for (int i = 0; i < singles; i++) {
      double t = now();
      check("kelSMBCprotoPutData", kelSMBCprotoPutData(s, data.data(), 4038));
      single.push_back(now() - t);
    }
    written += part + 4038 * singles;
    upRate.push_back(rate);
    upShare.push_back(rate / (4038 / mean(single) / 1e6));
  }
  check("kelSMBCWriteClose", kelSMBCWriteClose(s));
  check("kelSMBCReadOpen", kelSMBCReadOpen(s, &file));
  unsigned char buffer[4096];
  size_t got = 0;
  for (bool more = true; more;) {
    double t0 = now();
    size_t before = got;
    for (size_t i = 0; i < part / 4096 && more; i++) {
      check("kelSMBCprotoGetData", kelSMBCprotoGetData(s, buffer, 4096));
      more = s->dataLength != 0;
      if (more) check("kelSMBCRead", kelSMBCRead(s, buffer, s->dataLength));
      got += s->dataLength;
    }
    if (!more) break;
    double rate = static_cast<double>(got - before) / (now() - t0) / 1e6;
    single.clear();
    for (int i = 0; i < singles; i++) {  // the same bytes again: readOffset stays
      double t = now();
      check("kelSMBCprotoGetData", kelSMBCprotoGetData(s, buffer, 4096));
      single.push_back(now() - t);
    }
    downRate.push_back(rate);
    downShare.push_back(rate / (4096 / mean(single) / 1e6));
  }
  check("kelSMBCReadClose", kelSMBCReadClose(s));
  check("kelSMBCEnd", kelSMBCEnd(s));
  measuring = false;
  if (got != written) fail("the download's size", got);
  printf("smb_up_MBps=%.2f smb_up_share=%.3f smb_down_MBps=%.2f smb_down_share=%.3f "
         "pool_peak=%zu lib_heap=%zu libc_heap=%zu\n",
         median(upRate), median(upShare), median(downRate), median(downShare), poolPeak, libHeap, libcHeap);
  return 0;
}

// ---- codecs, in process, ours and OpenSSL's in turn ----

int codec(char **argv) {
  const size_t size = static_cast<size_t>(atoi(argv[2])) << 20;
  const int rounds = atoi(argv[3]);
  kelHostPoolSetSize(size * 3);
  std::vector<unsigned char> data(size);
  uint32_t x = 2463534242u;
  for (auto &b : data) x ^= x << 13, x ^= x >> 17, x ^= x << 5, b = static_cast<unsigned char>(x);
  std::vector<unsigned char> reference(size / 3 * 4 + 8);
  std::vector<double> md5Ours, md5Ref, encOurs, encRef, decOurs, decRef;
  unsigned char d1[16], d2[16];
  for (int round = 0; round < rounds; round++) {
    double t = now();
    kelMAILMD5Context c;
    kelMAILInitializeMD5(&c);
    kelMAILUpdateMD5(&c, data.data(), static_cast<uint32_t>(size));
    kelMAILFinishMD5(d1, &c);
    md5Ours.push_back(now() - t);
    t = now();
    EVP_Digest(data.data(), size, d2, nullptr, EVP_md5(), nullptr);
    md5Ref.push_back(now() - t);
    if (memcmp(d1, d2, 16) != 0) fail("MD5 comparison", 0);

    t = now();
    char *text = kelMAILEncodeBase64(data.data(), static_cast<uint32_t>(size));
    encOurs.push_back(now() - t);
    if (text == nullptr) fail("kelMAILEncodeBase64", 0);
    t = now();
    int refLength = EVP_EncodeBlock(reference.data(), data.data(), static_cast<int>(size));
    encRef.push_back(now() - t);
    if (memcmp(text, reference.data(), static_cast<size_t>(refLength)) != 0) fail("Base64 comparison", 0);

    t = now();
    char *back = kelMAILDecodeBase64(text, static_cast<uint32_t>(refLength));
    decOurs.push_back(now() - t);
    if (back == nullptr || memcmp(back, data.data(), size) != 0) fail("kelMAILDecodeBase64", 0);
    std::vector<unsigned char> decoded(size + 8);
    t = now();
    EVP_DecodeBlock(decoded.data(), reference.data(), refLength);
    decRef.push_back(now() - t);
    orvOSWOrgFreeMemPart(0, back);
    orvOSWOrgFreeMemPart(0, text);
  }
  const double mib = static_cast<double>(size) / (1 << 20);
  auto line = [&](const char *name, const std::vector<double> &ours, const std::vector<double> &ref) {
    double o = mib / median(ours), r = mib / median(ref);
    printf("%-16s ours %8.1f MiB/s  OpenSSL %8.1f MiB/s  ratio %.2f\n", name, o, r, o / r);
  };
  printf("codec: %zu MiB, %d rounds in turn, medians\n", size >> 20, rounds);
  line("MD5", md5Ours, md5Ref);
  line("Base64 encode", encOurs, encRef);
  line("Base64 decode", decOurs, decRef);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  const struct {
    const char *name;
    int args;
    int (*run)(char **);
  } commands[] = {{"ftp-store", 8, ftpStore}, {"ftp-retrieve", 8, ftpRetrieve}, {"ftp-small", 7, ftpSmall},
                  {"pop3", 8, pop3},          {"smtp", 7, smtp},               {"codec", 4, codec},
                  {"smb", 6, smbBench}};
  for (const auto &c : commands)
    if (command == c.name && argc == c.args) return c.run(argv);
  fprintf(stderr, "usage: see the head of bench/kelbench.cpp\n");
  return 2;
}
