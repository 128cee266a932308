// Linux has no code signatures: a process is found through /proc, its code on disk is
// the file its executable link points to, and the signing information of that file is
// what an unsigned program's is, a dictionary without any identity.

#include "platform/CodeSigning.h"

#include <array>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix {
namespace {

struct RunningProcess final : CodeSigningServices::Code {
  explicit RunningProcess(int32_t processID) : pid(processID) {}
  int32_t pid;
};

struct ExecutableFile final : CodeSigningServices::Code {
  explicit ExecutableFile(std::string filePath) : path(std::move(filePath)) {}
  std::string path;
};

bool processExists(int32_t pid) {
  struct stat status {};
  return pid > 0 && ::stat(("/proc/" + std::to_string(pid)).c_str(), &status) == 0;
}

class ProcCodeSigning final : public CodeSigningServices {
public:
  CodeResult guestCode(int32_t pid) override {
    if (!processExists(pid))
      return {codeSigningNoSuchCodeStatus, nullptr};
    return {0, std::make_shared<const RunningProcess>(pid)};
  }

  CodeResult staticCode(const Code &running) override {
    const auto *process = dynamic_cast<const RunningProcess *>(&running);
    if (process == nullptr)
      return {codeSigningNoSuchCodeStatus, nullptr};
    std::array<char, 4096> buffer{};
    const std::string link = "/proc/" + std::to_string(process->pid) + "/exe";
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
    if (length <= 0) {
      // Gone since it was found, or not ours to inspect.
      return {processExists(process->pid) ? codeSigningStaticCodeNotFoundStatus
                                          : codeSigningNoSuchCodeStatus,
              nullptr};
    }
    return {0, std::make_shared<const ExecutableFile>(
                   std::string(buffer.data(), static_cast<size_t>(length)))};
  }

  SigningInformationResult signingInformation(const Code &onDisk) override {
    if (dynamic_cast<const ExecutableFile *>(&onDisk) == nullptr)
      return {codeSigningStaticCodeNotFoundStatus, std::nullopt};
    return {0, PropertyListDictionary{}};
  }
};

} // namespace

std::unique_ptr<CodeSigningServices> makeSystemCodeSigningServices() {
  return std::make_unique<ProcCodeSigning>();
}

} // namespace tavix
