// Sends a directory with all below it to another recorder: push_directory DIR HOST PORT ACCOUNT DEST
//
// The password stands in the environment variable PUSH_PASSWORD. The directory appears at DEST when it is complete.
#include <cstdlib>
#include <iostream>
#include <string>

#include "archiving/archivesender.h"

namespace {

// Some files that did not arrive count as sent, see LastFileDelivered. This sender does not let them pass: the
// directory ends with the first one and does not get its final name.
class StrictSender : public WebapiSender {
 public:
  int SendFile(const ArchFile& file, bool overwrite) override {
    const int result = WebapiSender::SendFile(file, overwrite);
    const bool isDelivered = result == 0 && LastFileDelivered();
    std::cout << (isDelivered ? "sent " : "lost ") << file.GetFilePath() << " -> " << file.GetDestDir() << std::endl;
    return isDelivered ? 0 : 1;
  }
};

int Push(std::string dir, const std::string& host, int port, const std::string& account, const std::string& dest) {
  const char* password = std::getenv("PUSH_PASSWORD");
  StrictSender sender;  // logs out at its end
  if (sender.Login(host, port, account, password == nullptr ? "" : password, "", false) != 0) {
    std::cerr << "push_directory: cannot log in\n";
    return 1;
  }
  if (dir.back() != '/') {
    dir += '/';  // what stands behind it becomes the path below DEST
  }
  constexpr bool kWithHiddenFiles = true;
  constexpr bool kByTemporaryDir = true;
  if (sender.SendDir(dir, kWithHiddenFiles, dest, kByTemporaryDir) != 0) {
    std::cerr << "push_directory: not sent; a part may be in DEST.arch on the remote\n";
    return 1;
  }
  if (!sender.LastRequestAcknowledged()) {  // of the renaming: a refusal is none of SendDir's failures
    std::cerr << "push_directory: sent to DEST.arch, which did not become DEST: code " << sender.LastErrorCode()
              << "\n";
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6 || *argv[1] == '\0') {
    std::cerr << "usage: push_directory DIR HOST PORT ACCOUNT DEST\n";
    return 2;
  }
  return Push(argv[1], argv[2], static_cast<int>(std::strtol(argv[3], nullptr, 10)), argv[4], argv[5]);
}
