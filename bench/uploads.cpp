// Uploading a file over the loopback: the library beside a plain loop of read and send. compare.py adds curl.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <stdexcept>
#include <string>

#include "archiving/archivesender.h"
#include "bench/require.h"
#include "bench/uploadsink.h"
#include "bench/usage.h"

namespace {

using bench::Received;
using bench::Require;
using bench::UploadSink;

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kAllowedGrowth = 4 * kMiB;

// ---------------------------------------------------------------------------------------------------------------------
// The two sides
// ---------------------------------------------------------------------------------------------------------------------

// Notes the memory in use after the first MiB and the most of it later.
class Sender : public WebapiSender {
 public:
  std::int64_t Growth() const { return m_most - m_first; }

 protected:
  void OnFileSent(long long sent, long long) override {
    if (sent == kMiB || sent % (256 * kMiB) == 0) {
      const std::int64_t resident = bench::ResidentBytes();
      m_first = m_first == 0 ? resident : m_first;
      m_most = std::max(m_most, resident);
    }
  }

 private:
  std::int64_t m_first = 0;
  std::int64_t m_most = 0;
};

// Makes the sink the host that this process is paired with, which needs no login.
class Pairing {
 public:
  explicit Pairing(int port) : m_dir((std::filesystem::temp_directory_path() / "mediautil-bench-XXXXXX").string()) {
    Require(mkdtemp(m_dir.data()) != nullptr, "making a temporary folder");
    std::ofstream(m_dir + "/settings.json") << R"({"cmsPaired":true,"cmsHostIp":"127.0.0.1","cmsHostPort":)" << port
                                            << R"(,"cmsCookie":"c","cmsTimestamp":"1","serialNumber":"s"})";
    setenv("MEDIAUTIL_STATE_DIR", m_dir.c_str(), 1);
  }
  ~Pairing() { std::filesystem::remove_all(m_dir); }
  Pairing(const Pairing&) = delete;
  Pairing& operator=(const Pairing&) = delete;

 private:
  std::string m_dir;
};

// The growth of the memory in use.
std::int64_t LibraryUpload(const std::string& path, int port) {
  const Pairing pairing(port);
  Sender sender;
  ArchFile file;
  file.SetFileType(ARCH_FILE_PLAIN);
  file.SetFilePath(path);
  Require(sender.Login("127.0.0.1", port, "", "", "", false) == 0, "Login");
  Require(sender.SendFile(file, true) == 0 && sender.LastFileDelivered(), "SendFile");
  return sender.Growth();
}

void SendAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    Require(sent > 0, "sending");
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
}

std::int64_t FloorUpload(const std::string& path, int port) {
  alignas(64) static char buffer[kMiB];
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info = {};
  Require(file >= 0 && fstat(file, &info) == 0, "opening " + path);
  const int connection = bench::ConnectTo(port);
  const std::string head = "POST /?fileSize=" + std::to_string(info.st_size) + " HTTP/1.1\r\n\r\n";
  SendAll(connection, head.data(), head.size());
  ssize_t count = 0;
  while ((count = read(file, buffer, sizeof(buffer))) > 0) {
    SendAll(connection, buffer, static_cast<std::size_t>(count));
  }
  Require(count == 0 && recv(connection, buffer, sizeof(buffer), 0) > 0, "getting a reply");
  close(connection);
  close(file);
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// The modes
// ---------------------------------------------------------------------------------------------------------------------

// Fails, and so ends, when nothing comes for a minute.
int Serve() {
  UploadSink sink;
  std::printf("%d\n", sink.Port());
  std::fflush(stdout);
  for (;;) {
    sink.Take(false);
  }
}

// Prints CPU seconds, seconds, and the growth of the memory in use in bytes, start-up excluded.
int Send(const std::string& side, const std::string& path, int port) {
  using Clock = std::chrono::steady_clock;
  const double cpu = bench::CpuMicroseconds();
  const Clock::time_point start = Clock::now();
  const std::int64_t growth = side == "library" ? LibraryUpload(path, port) : FloorUpload(path, port);
  std::printf("%.3f %.3f %lld\n", (bench::CpuMicroseconds() - cpu) / 1e6,
              std::chrono::duration<double>(Clock::now() - start).count(), static_cast<long long>(growth));
  return 0;
}

// A file in memory, whose holes take none.
class MemoryFile {
 public:
  explicit MemoryFile(std::int64_t size) : m_fd(memfd_create("upload", MFD_CLOEXEC)) {
    Require(m_fd >= 0 && ftruncate(m_fd, size) == 0, "making a file in memory");
  }
  ~MemoryFile() { close(m_fd); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

 private:
  int m_fd;
};

// Library and floor must bring the same bytes.
int Check() {
  constexpr std::int64_t kSize = 3 * kMiB + 12345;
  const MemoryFile file(kSize);
  std::ofstream out(file.Path(), std::ios::binary);
  std::mt19937 random(11);
  for (std::int64_t i = 0; i < kSize; ++i) {
    out.put(static_cast<char>(random()));
  }
  out.close();
  Require(out.good(), "writing a file");
  UploadSink sink;
  const auto take = [&sink, &file](auto upload) {
    auto received = std::async(std::launch::async, [&sink] { return sink.Take(true); });
    upload(file.Path(), sink.Port());
    return received.get();
  };
  const Received library = take(LibraryUpload);
  const Received floor = take(FloorUpload);
  Require(library.bytes == kSize && floor.bytes == kSize && library.sum == floor.sum && floor.sum != 0,
          "comparing what arrived");
  return 0;
}

int Soak(int gibibytes) {
  const std::int64_t size = gibibytes * 1024 * kMiB;
  const MemoryFile file(size);
  UploadSink sink;
  auto received = std::async(std::launch::async, [&sink] { return sink.Take(false); });
  const std::int64_t growth = LibraryUpload(file.Path(), sink.Port());
  const std::int64_t bytes = received.get().bytes;
  std::printf("%lld bytes arrived; resident memory grown by %.2f MiB (at most %lld)\n", static_cast<long long>(bytes),
              static_cast<double>(growth) / static_cast<double>(kMiB), static_cast<long long>(kAllowedGrowth / kMiB));
  Require(bytes == size, "receiving everything");
  return growth > kAllowedGrowth ? 1 : 0;
}

int Run(int argc, char** argv) {
  CLI::App app("Uploads over the loopback.");
  app.require_subcommand(1);
  std::string side;
  std::string path;
  int port = 0;
  int gibibytes = 5;
  CLI::App* serve =
      app.add_subcommand("serve", "count what comes; prints the port and ends when nothing comes for a minute");
  CLI::App* send = app.add_subcommand("send", "upload a file; prints CPU seconds, seconds, growth of memory in bytes");
  send->add_option("SIDE", side, "library or floor")->required()->check(CLI::IsMember({"library", "floor"}));
  send->add_option("FILE", path)->required();
  send->add_option("PORT", port, "what serve printed")->required();
  CLI::App* check = app.add_subcommand("check", "library and floor must bring the same bytes");
  CLI::App* soak = app.add_subcommand("soak", "a large file; exit code 1 when memory grows, 2 when it does not work");
  soak->add_option("GIB", gibibytes, "its size (5)")->check(CLI::Range(1, 1000).description(""));
  CLI11_PARSE(app, argc, argv);
  return serve->parsed()   ? Serve()
         : send->parsed()  ? Send(side, path, port)
         : check->parsed() ? Check()
                           : Soak(gibibytes);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
  }
}
