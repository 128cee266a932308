#pragma once
// Code-signing services that answer from a script: one entry per process id, with the
// status each step returns and the signing information at the end.

#include "platform/CodeSigning.h"

#include <map>
#include <vector>

namespace tavix::test {

class FakeCodeSigning final : public CodeSigningServices {
public:
  struct Process {
    int32_t guestStatus = 0;
    int32_t staticStatus = 0;
    int32_t informationStatus = 0;
    std::optional<PropertyListDictionary> information = PropertyListDictionary{};
  };

  std::map<int32_t, Process> processes;
  std::vector<std::string> calls; // the steps asked for, in order

  CodeResult guestCode(int32_t pid) override {
    calls.push_back("guestCode");
    const auto found = processes.find(pid);
    if (found == processes.end()) // no such process: it has exited
      return {codeSigningNoSuchCodeStatus, nullptr};
    if (found->second.guestStatus != 0)
      return {found->second.guestStatus, nullptr};
    return {0, std::make_shared<const FakeCode>(pid)};
  }

  CodeResult staticCode(const Code &running) override {
    calls.push_back("staticCode");
    const auto pid = dynamic_cast<const FakeCode &>(running).pid;
    if (processes.at(pid).staticStatus != 0)
      return {processes.at(pid).staticStatus, nullptr};
    return {0, std::make_shared<const FakeCode>(pid)};
  }

  SigningInformationResult signingInformation(const Code &onDisk) override {
    calls.push_back("signingInformation");
    const auto &process = processes.at(dynamic_cast<const FakeCode &>(onDisk).pid);
    return {process.informationStatus, process.information};
  }

private:
  struct FakeCode final : Code {
    explicit FakeCode(int32_t processID) : pid(processID) {}
    int32_t pid;
  };
};

} // namespace tavix::test
