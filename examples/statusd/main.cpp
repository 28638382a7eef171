#include <fcntl.h>
#include <kiv/process.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "command_line.h"
#include "daemon.h"
#include "settings.h"

namespace {

constexpr int kUsageError = 2;
constexpr int kRunTimeFailure = 1;

const char kHelp[] =
    "Usage: statusd [--config FILE] [OPTION [VALUE]]...\n"
    "Serves a status page of this machine and of a peer, for people at / and for programs at /status.json.\n"
    "\n"
    "  --daemon                 go on in the background; try without it first, as nobody hears complaints then\n"
    "  --pidfile PATH           write the process id to PATH, and lock it: a second statusd does not start; what else\n"
    "                           is in that file is lost, and the file goes at the end\n"
    "  --user UID:GID           give up the rights of root, once the pid file and the port are taken\n"
    "  --config FILE            read settings from FILE; SIGHUP reads it again\n"
    "  --listen IP:PORT         address of the page (127.0.0.1:8080); port 0 takes a free one\n"
    "  --name NAME              what the page calls this machine (its host name)\n"
    "  --peer URL               what to watch, such as http://192.0.2.1:8080/status.json (nothing)\n"
    "  --interval-ms N          how often to ask the peer (1000)\n"
    "  --timeout-ms N           how long an answer of the peer may take (1000)\n"
    "  --slow-ms N              how long it may take without being called slow (500)\n"
    "  --client-deadline-ms N   how long a client of the page may stay (10000)\n"
    "  --max-clients N          how many clients there may be (64)\n"
    "  --command 'PROGRAM ARG'  what to run now and then, and to show the output of (nothing)\n"
    "  --command-interval-ms N  how often to run it (10000)\n"
    "  --restart-delay-ms N     how long a watched process, which only FILE can name, waits for a new start (5000)\n"
    "  --share /NAME            publish figures in shared memory, for statusctl (nothing); the last statusd to start\n"
    "                           with a name has it\n"
    "  --watchdog PATH          feed this hardware watchdog while the loop runs (nothing)\n"
    "  --watchdog-timeout-s N   how long the watchdog waits for a ping before it resets the machine (30)\n"
    "  --watchdog-hang-ms N     how long the loop may stand still before the pings stop (10000)\n"
    "  --report                 print a line a second of what is seen\n"
    "  --help, --version        print this, or the version, and end\n"
    "\n"
    "Options win over the file. SIGTERM, SIGINT and SIGQUIT end statusd with status 0. It ends with 2 when an\n"
    "option or setting is wrong, and with 1 when it cannot start.\n";

// A socket must not get the number of a standard descriptor that the caller has closed: output would go there.
void OpenStandardDescriptors() {
  int fd = -1;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) {
    (void)::close(fd);
  }
}

int Print(const char* text) {
  if (std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0) {
    return 0;
  }
  Complain(std::string("cannot write: ") + std::strerror(errno));
  return kRunTimeFailure;
}

bool Detach(CommandLine& commandLine) {
  if (MakePathsAbsolute(commandLine) && kiv::process::Daemonize() == 0) {
    return true;
  }
  Complain(std::string("cannot become a daemon: ") + std::strerror(errno));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardDescriptors();
  // Before there are threads, so that all inherit the mask, as a daemon does, and every signal goes to the loop.
  kiv::net::EventLoop::BlockSignals({SIGTERM, SIGINT, SIGQUIT, SIGHUP});
  // A reader of --report that goes away is no reason to die.
  std::signal(SIGPIPE, SIG_IGN);
  // Where the caller ignores it, the kernel forgets how the command and others ended.
  std::signal(SIGCHLD, SIG_DFL);

  CommandLine commandLine;
  Settings settings;
  std::string error;
  if (!ParseCommandLine(argc, argv, commandLine, error)) {
    Complain(error);
    return kUsageError;
  }
  if (commandLine.help || commandLine.version) {
    return Print(commandLine.help ? kHelp : "statusd " STATUSD_VERSION "\n");
  }
  if (!LoadSettings(commandLine, settings, error)) {
    Complain(error);
    return kUsageError;
  }
  if (commandLine.daemon && !Detach(commandLine)) {
    return kRunTimeFailure;
  }
  Daemon daemon(commandLine, settings);
  if (!daemon.Start()) {
    return kRunTimeFailure;
  }
  return daemon.Run() ? 0 : kRunTimeFailure;
}
