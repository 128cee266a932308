#pragma once
// The code-signing services that identify a running process: its running code, the
// code on disk behind it, and the identities recorded in that code's signature.

#include "platform/PropertyListValue.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace tavix {

// Keys of the signing information.
inline constexpr const char *signingInformationTeamIdentifierKey = "teamid";
inline constexpr const char *signingInformationIdentifierKey = "identifier";

// Statuses in the signing services' own numbering.
inline constexpr int32_t codeSigningNoSuchCodeStatus = -67065;
inline constexpr int32_t codeSigningStaticCodeNotFoundStatus = -67068;

class CodeSigningServices {
public:
  // A code object of the services; released when its last owner lets go.
  class Code {
  public:
    virtual ~Code() = default;
  };
  struct CodeResult {
    int32_t status = 0;
    std::shared_ptr<const Code> code;
  };
  struct SigningInformationResult {
    int32_t status = 0;
    // Nothing when the services returned no information or something that is not a
    // dictionary.
    std::optional<PropertyListDictionary> information;
  };

  virtual ~CodeSigningServices() = default;
  // The running code of a process.
  virtual CodeResult guestCode(int32_t pid) = 0;
  // The code on disk that a running code was started from.
  virtual CodeResult staticCode(const Code &running) = 0;
  virtual SigningInformationResult signingInformation(const Code &onDisk) = 0;
};

// The implementation for the platform this was built for.
std::unique_ptr<CodeSigningServices> makeSystemCodeSigningServices();

} // namespace tavix
