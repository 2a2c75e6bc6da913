/* tarvikel: the device from the shell. Subcommands store, fetch and delete
 * files on FTP servers and SMB shares, send mail, read a POP3 mailbox and
 * show dates, through the library's application calls as a device does. */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <string.h>

#include "cmd.h"

#ifndef TK_VERSION
#define TK_VERSION "unknown"
#endif

static const char kHelp[] =
    "Usage: tarvikel [options] COMMAND [ARGS]\n"
    "The network-client library of the device, from the shell.\n"
    "\n"
    "Commands:\n"
    "  ftp put|get|rm   store, fetch or delete a file on an FTP server\n"
    "  smb put|get|rm   store, fetch or delete a file on an SMB share\n"
    "  mail send        send a text and attachments by SMTP\n"
    "  pop3 list|get|rm list, fetch or delete messages of a POP3 mailbox\n"
    "  date             show a time in the device's date forms\n"
    "  codes            list every result code with its exit code and meaning\n"
    "'tarvikel COMMAND --help' tells more.\n"
    "\n"
    "Settings come from the first of $XDG_CONFIG_HOME/tarvikel/settings\n"
    "(~/.config/tarvikel/settings) and /etc/tarvikel/settings that exists,\n"
    "lines of NAME = value; options override them.\n"
    "\n" TK_COMMON_HELP "      --version          the version\n";

int tk_common_option(int option, const char *argument, const char *help) {
  switch (option) {
    case 'v': tk_verbose++; return TK_GO_ON;
    case 'h': fputs(help, stdout); return TK_OK;
    case TK_OPT_SETTINGS: tk_settings_file(argument); return TK_GO_ON;
    case TK_OPT_NO_SETTINGS: tk_settings_none(); return TK_GO_ON;
    case TK_OPT_SET: return tk_set_assignment(argument);
    case TK_OPT_VERSION: printf("tarvikel %s\n", TK_VERSION); return TK_OK;
    case '?':
    case ':':
      fprintf(stderr, "Try 'tarvikel%s%s --help'.\n", *tk_command ? " " : "", tk_command);
      return TK_USAGE;
    default: return TK_NOT_COMMON;
  }
}

int tk_parse(int argc, char **argv, const char *shortOptions, const struct option *options,
             const char *help, int (*handler)(int option, const char *argument)) {
  char name[64];
  snprintf(name, sizeof name, "tarvikel%s%s", *tk_command ? " " : "", tk_command);
  argv[0] = name; /* getopt's own messages name the subcommand */
  optind = 0;
  int option;
  while ((option = getopt_long(argc, argv, shortOptions, options, NULL)) != -1) {
    int status = tk_common_option(option, optarg, help);
    if (status == TK_NOT_COMMON) status = handler ? handler(option, optarg) : TK_USAGE;
    if (status != TK_GO_ON) return status;
  }
  return TK_GO_ON;
}

static const struct option kOptions[] = {TK_COMMON_OPTIONS, {0, 0, 0, 0}};

int main(int argc, char **argv) {
  int status = tk_parse(argc, argv, "+" TK_COMMON_SHORT, kOptions, kHelp, NULL);
  if (status != TK_GO_ON) return status;
  if (optind >= argc) return tk_usage("a command is missing");
  const char *command = argv[optind];
  static const struct {
    const char *name;
    int (*run)(int, char **);
  } kCommands[] = {{"ftp", tk_ftp}, {"smb", tk_smb}, {"mail", tk_mail}, {"pop3", tk_pop3},
                   {"date", tk_date}};
  size_t i;
  for (i = 0; i < sizeof kCommands / sizeof kCommands[0]; i++)
    if (strcmp(command, kCommands[i].name) == 0) {
      tk_command = command;
      return kCommands[i].run(argc - optind, argv + optind);
    }
  if (strcmp(command, "codes") == 0) {
    tk_print_codes();
    return TK_OK;
  }
  return tk_usage("unknown command '%s'", command);
}
