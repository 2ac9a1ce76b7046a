// A PostgreSQL server of its own for tests, on loopback, with its data in a temporary folder.
#pragma once

#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>

#include "server/postgres_connection.h"
#include "tests/common/program.h"
#include "tests/common/waiting.h"

namespace veld_report::tests {

class Postgres {
 public:
  Postgres() {
    const ProgramResult made = RunProgram({script_, "make", folder_.Path().string()});
    if (made.exitCode != 0) throw std::runtime_error("no PostgreSQL server can be made: " + made.errors);
    Start();
  }
  Postgres(const Postgres&) = delete;
  Postgres& operator=(const Postgres&) = delete;
  // A server that is killed leaves its shared memory.
  ~Postgres() {
    program_->Signal(SIGINT);
    try {
      program_->Wait();
    } catch (const std::exception&) {
      // Its destructor kills it.
    }
  }

  std::string Url(const std::string& user = "tester", const std::string& database = "postgres") const {
    return "postgresql://" + user + "@127.0.0.1:" + std::to_string(port_) + "/" + database;
  }
  // Statements of the superuser, each a call of its own. Returns the first column of the first row.
  std::string Run(const std::string& statements, const std::string& database = "postgres") const {
    return server::PostgresConnection(Url("tester", database)).Run(statements);
  }
  // Lets the server use a file or folder of the test.
  static void Give(const std::string& path) {
    const passwd* const user = geteuid() == 0 ? getpwnam("postgres") : nullptr;
    if (user && chown(path.c_str(), user->pw_uid, user->pw_gid) != 0)
      throw std::runtime_error("no chown of " + path);
  }
  // -KILL, without a restart.
  void Kill() {
    program_->Signal(SIGKILL);
    program_->Wait();
  }
  // Returns when it accepts connections. The processes of one that was killed may be in the way for a moment.
  void Start() {
    const auto isReady = [this] {
      if (!program_ || program_->HasEnded()) {
        program_ = std::make_unique<Program>(
            std::vector<std::string>{script_, "run", folder_.Path().string(), std::to_string(port_)});
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // between attempts
      try {
        return Run("SELECT 'yes'") == "yes";
      } catch (const server::PostgresError&) {
        return false;
      }
    };
    if (!Eventually(isReady)) throw std::runtime_error("PostgreSQL doesn't start: " + program_->Errors());
  }

 private:
  static std::uint16_t FreePort() {
    const int socketHandle = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    const bool found =
        bind(socketHandle, general, size) == 0 && getsockname(socketHandle, general, &size) == 0;
    close(socketHandle);
    if (!found) throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
  }

  const std::string script_ = SOURCES "/tests/common/postgres";
  const TemporaryFolder folder_;
  const std::uint16_t port_ = FreePort();
  std::unique_ptr<Program> program_;
};

}  // namespace veld_report::tests
