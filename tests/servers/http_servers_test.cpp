#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/support.h"
#include "tests/unit/net/scripted_server.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::ScriptedServer;

constexpr char kNginx[] = "/usr/sbin/nginx";
constexpr char kPython[] = "/usr/bin/python3";
const std::vector<std::size_t> kSizes = {0, 1, 4095, 4096, 4097, 64 * 1024 * 1024};

// Bytes whose period divides no buffer size, without the colons and line ends that would make header lines.
std::string Body(std::size_t size) {
  std::string period;
  for (unsigned i = 0; i < 65537; ++i) {
    period += static_cast<char>('A' + (i * i + i / 256) % 26);
  }
  std::string body;
  body.reserve(size + period.size());
  while (body.size() < size) {
    body += period;
  }
  body.resize(size);
  return body;
}

// A folder of its own that goes with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() : mPath((std::filesystem::temp_directory_path() / "kiv-servers-XXXXXX").string()) {
    if (::mkdtemp(mPath.data()) == nullptr) {
      mPath.clear();
    }
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    if (!mPath.empty()) {
      std::filesystem::remove_all(mPath, ignored);
    }
  }

  const std::string& Path() const { return mPath; }

  void Write(const std::string& name, const std::string& bytes) const {
    std::ofstream file(mPath + "/" + name, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.flush().good()) << name;
  }

 private:
  std::string mPath;
};

// A program that runs until the end of the object's life, or that of the test program. Its output comes through a pipe.
class ServerProcess {
 public:
  explicit ServerProcess(std::vector<std::string> arguments) {
    int pipes[2] = {-1, -1};
    (void)::pipe2(pipes, O_CLOEXEC);
    mOutput.Reset(pipes[0]);
    const UniqueFd writer(pipes[1]);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::string english = "LC_ALL=C";
    char* const environment[] = {english.data(), nullptr};
    mPid = ::fork();
    if (mPid == 0) {
      (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
      (void)::dup2(writer.Get(), STDOUT_FILENO);
      (void)::dup2(writer.Get(), STDERR_FILENO);
      (void)::execve(argv[0], argv.data(), environment);
      ::_exit(127);
    }
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    if (mPid <= 0) {
      return;
    }
    (void)::kill(mPid, SIGTERM);
    if (!DrainUntilClosed()) {
      (void)::kill(mPid, SIGKILL);
    }
    (void)::waitpid(mPid, nullptr, 0);
  }

  // Returns what the program has said once it has said `text`, or ten seconds of silence have passed.
  std::string OutputUpTo(const std::string& text) {
    std::string output;
    while (output.find(text) == std::string::npos && ReadOutput(output)) {
    }
    return output;
  }

 private:
  bool ReadOutput(std::string& output) {
    pollfd entry{mOutput.Get(), POLLIN, 0};
    char bytes[4096];
    if (::poll(&entry, 1, 10000) <= 0) {
      return false;
    }
    const ssize_t size = ::read(mOutput.Get(), bytes, sizeof bytes);
    output.append(bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
  }

  // The pipe closes when the program ends.
  bool DrainUntilClosed() {
    pollfd entry{mOutput.Get(), POLLIN, 0};
    char bytes[4096];
    while (::poll(&entry, 1, 10000) > 0) {
      if (::read(mOutput.Get(), bytes, sizeof bytes) <= 0) {
        return true;
      }
    }
    return false;
  }

  UniqueFd mOutput;
  pid_t mPid = -1;
};

// A loopback address of this process's own, so that a port which is free on it stays free until a server takes it.
std::string OwnAddress() {
  return "127.81." + std::to_string(::getpid() / 256 % 256) + "." + std::to_string(::getpid() % 256);
}

unsigned short FreePort(const std::string& ip) {
  const UniqueFd probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  EXPECT_TRUE(SetAddress(address, ip, 0));
  socklen_t size = sizeof address;
  EXPECT_EQ(0, ::bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), size));
  EXPECT_EQ(0, ::getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &size));
  return ntohs(address.sin_port);
}

// A missing program is a visible skip on a laptop and a failure in CI.
#define REQUIRE_PROGRAM(path)                                               \
  if (::access(path, X_OK) != 0) {                                          \
    ASSERT_EQ(nullptr, std::getenv("CI")) << (path) << " is not installed"; \
    GTEST_SKIP() << (path) << " is not installed";                          \
  }

class RealServer : public ::testing::Test {
 protected:
  void WriteBodies() const {
    for (const std::size_t size : kSizes) {
      mFolder.Write(std::to_string(size), Body(size));
    }
  }

  std::string Url(const std::string& path) const { return mBase + path; }

  void ExpectEveryBody() {
    WriteBodies();
    for (const std::size_t size : kSizes) {
      const HttpResponse response = mClient.Get(Url("/" + std::to_string(size)));
      EXPECT_EQ(200, response.status) << size;
      EXPECT_EQ("OK", response.reason) << size;
      EXPECT_TRUE(response.headers.empty()) << size;
      EXPECT_TRUE(Body(size) == response.body) << size << ": " << response.body.size() << " bytes came";
    }
  }

  void ExpectEveryBodyStreamed() {
    WriteBodies();
    for (const std::size_t size : kSizes) {
      const std::string expected = Body(size);
      std::size_t received = 0;
      bool same = true;
      EXPECT_TRUE(mClient.Get(Url("/" + std::to_string(size)), [&](const char* data, unsigned int length) {
        same = same && expected.compare(received, length, data, length) == 0;
        received += length;
        return true;
      }));
      EXPECT_EQ(size, received);
      EXPECT_TRUE(same) << size;
    }
  }

  TemporaryFolder mFolder;
  std::string mBase;
  std::unique_ptr<ServerProcess> mProcess;
  HttpClient mClient;
};

// ----------------------------------------------------------------------------------------------------------- nginx

// Every path is relative to the folder given with -p.
constexpr char kNginxGlobals[] = R"(
daemon off;
master_process off;
pid nginx.pid;
error_log stderr notice;
events {}
)";
constexpr char kNginxLocations[] = R"(
  client_body_temp_path client_body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  access_log off;
  default_type text/plain;
  root .;
  location = /broken { return 500 "out of order"; }
  location = /found { return 302 /target; }
  location = /moved-in-body { error_page 418 =301 /moved; return 418; }
  location = /echo { return 200 "$request_method $content_length $content_type $http_x_extra $http_host"; }
)";

class Nginx : public RealServer {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM(kNginx);
    const std::string authority = OwnAddress() + ":" + std::to_string(FreePort(OwnAddress()));
    mBase = "http://" + authority;
    mFolder.Write("moved", "Location: /target\n\n");
    mFolder.Write("target", "the target");
    mFolder.Write("nginx.conf",
                  kNginxGlobals + ("http { server { listen " + authority + ";") + kNginxLocations + "} }\n");
    const std::string& folder = mFolder.Path();
    mProcess = std::make_unique<ServerProcess>(
        std::vector<std::string>{kNginx, "-e", "stderr", "-p", folder, "-c", folder + "/nginx.conf"});
    // Comes when the sockets listen.
    const std::string ready = "event method";
    const std::string output = mProcess->OutputUpTo(ready);
    ASSERT_NE(std::string::npos, output.find(ready)) << output;
  }
};

TEST_F(Nginx, BodiesOfEverySizeArriveWhole) { ExpectEveryBody(); }

TEST_F(Nginx, BodiesOfEverySizeAreStreamedWhole) { ExpectEveryBodyStreamed(); }

TEST_F(Nginx, MissingFileIs404WithItsReasonAndBody) {
  const HttpResponse response = mClient.Get(Url("/missing"));
  EXPECT_EQ(404, response.status);
  EXPECT_EQ("Not Found", response.reason);
  EXPECT_NE(std::string::npos, response.body.find("404 Not Found"));
}

TEST_F(Nginx, ServerErrorIs500WithItsReasonAndBody) {
  const HttpResponse response = mClient.Get(Url("/broken"));
  EXPECT_EQ(500, response.status);
  EXPECT_EQ("Internal Server Error", response.reason);
  EXPECT_EQ("out of order", response.body);
}

TEST_F(Nginx, OrdinaryRedirectIsNotFollowed) {
  const HttpResponse response = mClient.Get(Url("/found"));
  EXPECT_EQ(302, response.status);
  EXPECT_NE(std::string::npos, response.body.find("302 Found"));
}

TEST_F(Nginx, RedirectWithItsLocationBehindTheHeadIsFollowed) {
  const HttpResponse response = mClient.Get(Url("/moved-in-body"));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("the target", response.body);
}

TEST_F(Nginx, StreamedRedirectDeliversBothBodies) {
  std::string bodies;
  EXPECT_TRUE(mClient.Get(Url("/moved-in-body"), [&bodies](const char* data, unsigned int length) {
    bodies.append(data, length);
    return true;
  }));
  EXPECT_EQ("Location: /target\n\nthe target", bodies);
}

TEST_F(Nginx, UnderstandsEveryLineOfAPost) {
  mClient.AddHeader("X-Extra", "more");
  const HttpResponse response = mClient.Post(Url("/echo"), "a=1", "application/x-www-form-urlencoded");
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("POST 3 application/x-www-form-urlencoded more " + OwnAddress(), response.body);
}

TEST_F(Nginx, UnderstandsAGetWithoutContentLines) {
  EXPECT_EQ("GET    " + OwnAddress(), mClient.Get(Url("/echo")).body);
}

TEST_F(Nginx, RefusalInTheMiddleOfALargeBodyEndsTheTransfer) {
  mFolder.Write("large", Body(kSizes.back()));
  const std::size_t before = test::CountOpenFds();
  std::size_t received = 0;
  EXPECT_FALSE(mClient.Get(Url("/large"), [&received](const char*, unsigned int length) {
    received += length;
    return received < 1000000;
  }));
  EXPECT_LT(received, 1000000U + 4096U);
  EXPECT_EQ(before, test::CountOpenFds());
}

TEST_F(Nginx, ManyRequestsLeaveNoDescriptorOpen) {
  const std::size_t before = test::CountOpenFds();
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ("the target", mClient.Get(Url("/target")).body);
  }
  EXPECT_EQ(before, test::CountOpenFds());
}

// ---------------------------------------------------------------------------------------------------------- Python

class Python : public RealServer {
 protected:
  void Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {kPython, "-u"});
    mProcess = std::make_unique<ServerProcess>(std::move(arguments));
    const std::string output = mProcess->OutputUpTo("\n");
    const std::string before = "port ";
    const std::size_t at = output.find(before);
    ASSERT_NE(std::string::npos, at) << output;
    mBase = "http://127.0.0.1:" + std::to_string(std::strtoul(output.c_str() + at + before.size(), nullptr, 10));
  }
};

class PythonFiles : public Python {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM(kPython);
    ASSERT_TRUE(std::filesystem::create_directory(mFolder.Path() + "/folder"));
    Start({"-m", "http.server", "--bind", "127.0.0.1", "--directory", mFolder.Path(), "0"});
  }
};

TEST_F(PythonFiles, BodiesOfEverySizeArriveWhole) { ExpectEveryBody(); }

TEST_F(PythonFiles, BodiesOfEverySizeAreStreamedWhole) { ExpectEveryBodyStreamed(); }

TEST_F(PythonFiles, MissingFileIs404WithItsReason) {
  const HttpResponse response = mClient.Get(Url("/missing"));
  EXPECT_EQ(404, response.status);
  EXPECT_EQ("File not found", response.reason);
}

TEST_F(PythonFiles, OrdinaryRedirectIsNotFollowed) {
  const HttpResponse response = mClient.Get(Url("/folder"));
  EXPECT_EQ(301, response.status);
  EXPECT_EQ("Moved Permanently", response.reason);
}

TEST_F(PythonFiles, UnsupportedMethodIs501) { EXPECT_EQ(501, mClient.Post(Url("/"), "a=1", "text/plain").status); }

// Says back what it was sent.
constexpr char kEcho[] = R"(
from http.server import BaseHTTPRequestHandler, HTTPServer
class Echo(BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers['Content-Length']))
        self.send_response(200)
        self.end_headers()
        self.wfile.write(self.headers['Content-Type'].encode() + b'|' + body)
server = HTTPServer(('127.0.0.1', 0), Echo)
print('port', server.server_port)
server.serve_forever()
)";

class PythonEcho : public Python {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM(kPython);
    Start({"-c", kEcho});
  }
};

TEST_F(PythonEcho, PostedBytesComeBackUnchanged) {
  const std::string body = std::string("\0\r\n\r\n\xff", 6) + Body(1024 * 1024);
  const HttpResponse response = mClient.Post(Url("/"), body, "application/octet-stream");
  EXPECT_EQ(200, response.status);
  EXPECT_TRUE("application/octet-stream|" + body == response.body);
}

TEST_F(PythonEcho, PostedBytesAreStreamedBack) {
  std::string echoed;
  EXPECT_TRUE(mClient.Post(
      Url("/"), "a=1",
      [&echoed](const char* data, unsigned int length) {
        echoed.append(data, length);
        return true;
      },
      "text/plain"));
  EXPECT_EQ("text/plain|a=1", echoed);
}

// ------------------------------------------------------------------------------------------ servers that misbehave

const std::string kOk = "HTTP/1.1 200 OK\r\n\r\n";

TEST(MisbehavingServer, NeverClosesAndTheTimeoutEndsTheRead) {
  const std::string body = Body(1024 * 1024);
  ScriptedServer server({test::AnswerAndHold(kOk + body)});
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(1));
  const HttpResponse response = client.Get(server.Url("/"));
  EXPECT_EQ(200, response.status);
  EXPECT_TRUE(body == response.body);
}

// The pauses are what this is about: each is shorter than the time-out, all of them together are longer.
TEST(MisbehavingServer, DripsForLongerThanTheTimeoutAndIsReadToItsEnd) {
  const test::Script drip = [](UniqueFd& connection) {
    for (const std::string piece : {"HTTP/1.1 20", "0 OK\r\n\r", "\nslo", "w"}) {
      test::SendAll(connection.Get(), piece);
      std::this_thread::sleep_for(std::chrono::milliseconds(700));
    }
    (void)::shutdown(connection.Get(), SHUT_WR);
  };
  ScriptedServer server({drip});
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(2000));
  const HttpResponse response = client.Get(server.Url("/"));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("slow", response.body);
}

TEST(MisbehavingServer, ResetsAndWhatCameBeforeStands) {
  ScriptedServer server(
      {test::AnswerAndReset(kOk + "part"), test::AnswerAndReset("HTTP/1.1 200"), test::AnswerAndReset("")});
  EXPECT_EQ("part", HttpClient().Get(server.Url("/")).body);
  EXPECT_EQ(0, HttpClient().Get(server.Url("/")).status);
  EXPECT_EQ(0, HttpClient().Post(server.Url("/"), "a=1", "text/plain").status);
}

}  // namespace
}  // namespace kiv::net
