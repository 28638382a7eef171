#include <csignal>
#include <cstdio>

#include "daemon.h"
#include "settings.h"

namespace {

constexpr int kUsageError = 2;
constexpr int kRunTimeFailure = 1;

const char kHelp[] =
    "Usage: statusd [--config FILE] [OPTION VALUE]...\n"
    "Serves a status page of this machine and of a peer, for people at / and for programs at /status.json.\n"
    "\n"
    "  --config FILE            read settings from FILE; SIGHUP reads it again\n"
    "  --listen IP:PORT         address of the page (127.0.0.1:8080); port 0 takes a free one\n"
    "  --name NAME              what the page calls this machine (its host name)\n"
    "  --peer URL               what to watch, such as http://192.0.2.1:8080/status.json (nothing)\n"
    "  --interval-ms N          how often to ask the peer (1000)\n"
    "  --timeout-ms N           how long an answer of the peer may take (1000)\n"
    "  --slow-ms N              how long it may take without being called slow (500)\n"
    "  --client-deadline-ms N   how long a client of the page may stay (10000)\n"
    "  --max-clients N          how many clients there may be (64)\n"
    "  --report                 print a line a second of what is seen\n"
    "  --help, --version        print this, or the version, and end\n"
    "\n"
    "Options win over the file. SIGTERM and SIGINT end statusd with status 0. It ends with 2 when an option or\n"
    "setting is wrong, and with 1 when it cannot start.\n";

}  // namespace

int main(int argc, char** argv) {
  // Before the worker starts, so that it inherits the mask and every signal goes to the loop.
  kiv::net::EventLoop::BlockSignals({SIGTERM, SIGINT, SIGHUP});
  // A reader of --report that goes away is no reason to die.
  std::signal(SIGPIPE, SIG_IGN);

  CommandLine commandLine;
  Settings settings;
  std::string error;
  if (!ParseCommandLine(argc, argv, commandLine, error)) {
    Complain(error);
    return kUsageError;
  }
  if (commandLine.help || commandLine.version) {
    std::printf("%s", commandLine.help ? kHelp : "statusd " STATUSD_VERSION "\n");
    return 0;
  }
  if (!LoadSettings(commandLine, settings, error)) {
    Complain(error);
    return kUsageError;
  }
  Daemon daemon(commandLine, settings);
  if (!daemon.Start()) {
    return kRunTimeFailure;
  }
  return daemon.Run() ? 0 : kRunTimeFailure;
}
