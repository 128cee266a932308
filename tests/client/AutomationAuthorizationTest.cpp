// The automation check before a send: how probe statuses read, the one prompt per
// process, remembered runtimes, sends that go ahead when the probe cannot tell, the
// remediation texts and log lines of a refusal; and the responsible process they name.

#include "client/AutomationAuthorization.h"
#include "client/ResponsibleProcess.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeAutomationPermission.h"
#include "fakes/FakeProcessInformation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using Authorization = AppleEventsAutomationAuthorization;
using Kind = Authorization::Kind;
using Attribution = ResponsibleProcess::Attribution;
using Probe = FakeAutomationPermission::Probe;

constexpr int32_t runtimePID = 4321;
constexpr const char *target = "Tavix Computer Use";
constexpr const char *getAppState = "ComputerUseIPCGetAppStateRequest";
constexpr const char *cancelRequest = "ComputerUseIPCCancelRequest";

std::string selfMessage(const std::string &targetName, const std::string &responsible) {
  return "Computer Use is not authorized to control " + targetName +
         " through macOS Automation. macOS returned errAEEventNotPermitted (-1743).\n\nmacOS holds " + responsible +
         " itself responsible for this request instead of a host application, so no Automation entry can be "
         "granted for it. Start the Computer Use MCP server from its host application, then retry.";
}

std::string hostMessage(const std::string &targetName, const std::string &host) {
  return "Computer Use is not authorized to control " + targetName +
         " through macOS Automation. macOS returned errAEEventNotPermitted (-1743).\n\nOpen System Settings > "
         "Privacy & Security > Automation, find " +
         host + ", and enable " + targetName + " underneath it. Then quit and relaunch " + host + " before retrying.";
}

bool hasField(const std::string &line, const std::string &field) {
  return line.find(" " + field + " ") != std::string::npos || line.find(" " + field + "\n") != std::string::npos;
}

// An authorizer over scripted probes, for a bridge (pid 100) that a host app (pid 200,
// "Tavix Desktop") started.
struct Authorizer {
  explicit Authorizer(int32_t quietStatus = 0) : permission(std::make_shared<FakeAutomationPermission>(quietStatus)) {
    processes->self = 100;
    processes->responsible[100] = 200;
    processes->localizedNames[200] = "Tavix Desktop";
  }
  std::shared_ptr<FakeAutomationPermission> permission;
  std::shared_ptr<FakeProcessInformation> processes = std::make_shared<FakeProcessInformation>();
  AutomationAuthorizer authorizer{permission, processes, [] { return std::string(target); }};
};

TEST(AppleEventsAutomationAuthorization, ReadsProbeStatuses) {
  const struct {
    int32_t osStatus;
    Kind kind;
    int32_t code;
    const char *description;
    bool authorized, problem;
  } cases[] = {
      {0, Kind::authorized, 0, "authorized", true, false},
      {-1744, Kind::requiresUserConsent, 0, "requiresUserConsent", false, true},
      {-1743, Kind::denied, 0, "denied", false, true},
      {-600, Kind::targetNotFound, 0, "targetNotFound", false, false},
      {-1745, Kind::failed, -1745, "failed(-1745)", false, false},
      {-1742, Kind::failed, -1742, "failed(-1742)", false, false},
      {-601, Kind::failed, -601, "failed(-601)", false, false},
      {-599, Kind::failed, -599, "failed(-599)", false, false},
      {1, Kind::failed, 1, "failed(1)", false, false},
      {-1, Kind::failed, -1, "failed(-1)", false, false},
      {std::numeric_limits<int32_t>::min(), Kind::failed, std::numeric_limits<int32_t>::min(), "failed(-2147483648)",
       false, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.osStatus);
    const auto status = Authorization::status(c.osStatus);
    EXPECT_EQ(status, (Authorization::Status{c.kind, c.code}));
    EXPECT_EQ(status.description(), c.description);
    EXPECT_EQ(status.isAuthorized(), c.authorized);
    EXPECT_EQ(status.isAuthorizationProblem(), c.problem);
    EXPECT_EQ(Authorization::isNotPermitted(c.osStatus), c.osStatus == -1743);
  }
}

TEST(AppleEventsAutomationAuthorization, RemediationMessages) {
  const std::string selfWithName =
      "Computer Use is not authorized to control Tavix Computer Use through macOS Automation. macOS returned "
      "errAEEventNotPermitted (-1743).\n\nmacOS holds TavixComputerUseBridge itself responsible for this request "
      "instead of a host application, so no Automation entry can be granted for it. Start the Computer Use MCP "
      "server from its host application, then retry.";
  const std::string hostWithName =
      "Computer Use is not authorized to control Tavix Computer Use through macOS Automation. macOS returned "
      "errAEEventNotPermitted (-1743).\n\nOpen System Settings > Privacy & Security > Automation, find Tavix "
      "Desktop, and enable Tavix Computer Use underneath it. Then quit and relaunch Tavix Desktop before retrying.";
  const std::string selfDefault = "this MCP server process";
  const std::string hostDefault = "the application that started this MCP server";
  const struct {
    const char *name;
    std::string targetName;
    Attribution responsible;
    std::string expected;
  } cases[] = {
      {"self, named", target, {100, "TavixComputerUseBridge", true}, selfWithName},
      {"self, no name", target, {100, std::nullopt, true}, selfMessage(target, selfDefault)},
      {"self, empty name", target, {100, "", true}, selfMessage(target, selfDefault)},
      {"self, white space", target, {100, " \t\n ", true}, selfMessage(target, selfDefault)},
      {"self, no process", "Other Runtime", {std::nullopt, std::nullopt, true}, selfMessage("Other Runtime", selfDefault)},
      {"host, named", target, {200, "Tavix Desktop", false}, hostWithName},
      {"host, no name", target, {200, std::nullopt, false}, hostMessage(target, hostDefault)},
      {"host, empty name", target, {200, "", false}, hostMessage(target, hostDefault)},
      {"host, white space", target, {200, "   ", false}, hostMessage(target, hostDefault)},
      {"host, no process", "Other Runtime", {std::nullopt, std::nullopt, false},
       hostMessage("Other Runtime", hostDefault)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Authorization::remediationMessage(c.targetName, c.responsible), c.expected);
  }
}

TEST(AutomationAuthorizer, ProbesQuietlyThenAsksTheUserOnceAndRemembersOnlyAuthorizedRuntimes) {
  const struct {
    const char *name;
    int32_t quiet;
    std::optional<int32_t> prompt; // the status when the user may be asked
    bool proceeds;
    std::vector<Probe> probes;
    bool remembered;     // a second request for the runtime probes nothing
    bool secondProceeds; // the second request: the user was asked already if at all
  } cases[] = {
      {"authorized", 0, std::nullopt, true, {{runtimePID, false}}, true, true},
      {"consent given at the prompt", -1744, 0, true, {{runtimePID, false}, {runtimePID, true}}, true, true},
      {"denied, then granted at the prompt", -1743, 0, true, {{runtimePID, false}, {runtimePID, true}}, true, true},
      {"consent refused at the prompt", -1744, -1743, false, {{runtimePID, false}, {runtimePID, true}}, false, false},
      {"prompt still needs consent", -1744, -1744, false, {{runtimePID, false}, {runtimePID, true}}, false, false},
      {"denied at both probes", -1743, -1743, false, {{runtimePID, false}, {runtimePID, true}}, false, false},
      {"prompt finds no target", -1744, -600, true, {{runtimePID, false}, {runtimePID, true}}, false, false},
      {"prompt fails", -1744, -50, true, {{runtimePID, false}, {runtimePID, true}}, false, false},
      {"no target", -600, std::nullopt, true, {{runtimePID, false}}, false, true},
      {"probe fails", -1, std::nullopt, true, {{runtimePID, false}}, false, true},
      {"probe fails next to consent", -1745, std::nullopt, true, {{runtimePID, false}}, false, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Authorizer a(c.quiet);
    a.permission->script(runtimePID, true, c.prompt.value_or(0));
    const auto first = a.authorizer.ensureAuthorized(runtimePID, getAppState);
    EXPECT_EQ(first.has_value(), c.proceeds);
    if (!first) {
      EXPECT_EQ(first.error(), ClientError::automationNotAuthorized(hostMessage(target, "Tavix Desktop")));
    }
    EXPECT_EQ(a.permission->probes(), c.probes);

    // A later request: an authorized runtime is not probed again; otherwise it is probed
    // quietly, and the user, asked once already when the first needed it, is not asked again.
    const auto second = a.authorizer.ensureAuthorized(runtimePID, getAppState);
    EXPECT_EQ(second.has_value(), c.secondProceeds);
    if (!second) {
      EXPECT_EQ(second.error(), ClientError::automationNotAuthorized(hostMessage(target, "Tavix Desktop")));
    }
    auto probes = c.probes;
    if (!c.remembered)
      probes.push_back({runtimePID, false});
    EXPECT_EQ(a.permission->probes(), probes);
  }
}

TEST(AutomationAuthorizer, TheOnePromptIsPerBridgeNotPerRuntime) {
  Authorizer a(-1744);
  a.permission->script(runtimePID, true, -1743);
  EXPECT_FALSE(a.authorizer.ensureAuthorized(runtimePID, getAppState).has_value());
  const auto other = a.authorizer.ensureAuthorized(runtimePID + 1, getAppState);
  ASSERT_FALSE(other.has_value());
  EXPECT_EQ(other.error().description(), hostMessage(target, "Tavix Desktop"));
  EXPECT_EQ(a.permission->probes(),
            (std::vector<Probe>{{runtimePID, false}, {runtimePID, true}, {runtimePID + 1, false}}));
}

TEST(AutomationAuthorizer, RemembersEachAuthorizedRuntimeByItsProcess) {
  Authorizer a(0);
  EXPECT_TRUE(a.authorizer.ensureAuthorized(runtimePID, getAppState).has_value());
  a.permission->script(runtimePID + 1, false, -1744);
  a.permission->script(runtimePID + 1, true, -1743);
  EXPECT_FALSE(a.authorizer.ensureAuthorized(runtimePID + 1, getAppState).has_value());
  a.permission->script(runtimePID, false, -1743); // would refuse now, but is not asked
  EXPECT_TRUE(a.authorizer.ensureAuthorized(runtimePID, getAppState).has_value());
  EXPECT_EQ(a.permission->probes(),
            (std::vector<Probe>{{runtimePID, false}, {runtimePID + 1, false}, {runtimePID + 1, true}}));
}

TEST(AutomationAuthorizer, ACancellationNeverPromptsAndLeavesThePromptToTheNextRequest) {
  for (int32_t quiet : {-1744, -1743}) {
    SCOPED_TRACE(quiet);
    CapturedLog log;
    Authorizer a(quiet);
    a.permission->script(runtimePID, true, 0); // what the user would answer
    const auto cancelled = a.authorizer.ensureAuthorized(runtimePID, cancelRequest);
    ASSERT_FALSE(cancelled.has_value());
    EXPECT_EQ(cancelled.error().description(), hostMessage(target, "Tavix Desktop"));
    EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}}));
    EXPECT_TRUE(log.withEvent("automation_authorization_prompt_requested").empty());
    EXPECT_EQ(log.withEvent("automation_authorization_denied").size(), 1u);

    EXPECT_TRUE(a.authorizer.ensureAuthorized(runtimePID, getAppState).has_value());
    EXPECT_EQ(a.permission->probes(),
              (std::vector<Probe>{{runtimePID, false}, {runtimePID, false}, {runtimePID, true}}));
  }
}

TEST(AutomationAuthorizer, ARequestDuringThePromptFailsAtOnceWithoutPrompting) {
  Authorizer a(-1744);
  a.permission->script(runtimePID, true, 0);
  std::promise<void> promptShown, promptAnswered;
  auto answered = promptAnswered.get_future().share();
  std::atomic<int> prompts{0};
  a.permission->setHook([&, answered](const Probe &probe) {
    if (probe.askUserIfNeeded && prompts++ == 0) { // holds the first prompt only
      promptShown.set_value();
      answered.wait();
    }
  });
  std::optional<tl::expected<void, ClientError>> first;
  std::thread prompting([&] { first = a.authorizer.ensureAuthorized(runtimePID, getAppState); });
  promptShown.get_future().wait();

  const auto concurrent = a.authorizer.ensureAuthorized(runtimePID, "ComputerUseIPCClickRequest");
  promptAnswered.set_value();
  prompting.join();
  ASSERT_FALSE(concurrent.has_value());
  EXPECT_EQ(concurrent.error(), ClientError::automationNotAuthorized(hostMessage(target, "Tavix Desktop")));
  ASSERT_TRUE(first.has_value());
  EXPECT_TRUE(first->has_value()); // the user granted it
  EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}, {runtimePID, true}, {runtimePID, false}}));
}

TEST(AutomationAuthorizer, LogsThePromptWithTheQuietProbesStatus) {
  const struct {
    int32_t quiet;
    const char *probeStatus;
  } cases[] = {{-1744, "probeStatus=requiresUserConsent"}, {-1743, "probeStatus=denied"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.probeStatus);
    CapturedLog log;
    Authorizer a(c.quiet);
    a.permission->script(runtimePID, true, 0);
    EXPECT_TRUE(a.authorizer.ensureAuthorized(runtimePID, getAppState).has_value());
    const auto lines = log.withEvent("automation_authorization_prompt_requested");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(hasField(lines[0], "level=warning")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], "category=ipc")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], std::string("requestType=") + getAppState)) << lines[0];
    EXPECT_TRUE(hasField(lines[0], c.probeStatus)) << lines[0];
    EXPECT_TRUE(log.withEvent("automation_authorization_denied").empty());
  }
}

TEST(AutomationAuthorizer, ARefusalNamesTheResponsibleProcessInItsErrorAndLogLine) {
  const struct {
    const char *name;
    std::optional<int32_t> responsible;
    std::optional<std::string> localizedName, executablePath; // of the responsible process
    std::vector<std::string> fields;
    std::string message;
  } cases[] = {
      {"a host app",
       200,
       "Tavix Desktop",
       std::nullopt,
       {"responsibleName=\"Tavix Desktop\"", "responsiblePID=200", "responsibleIsSelf=false"},
       hostMessage(target, "Tavix Desktop")},
      {"a host known by its bundle",
       300,
       std::nullopt,
       "/Applications/Tavix.app/Contents/MacOS/Tavix",
       {"responsibleName=Tavix", "responsiblePID=300", "responsibleIsSelf=false"},
       hostMessage(target, "Tavix")},
      {"the bridge itself",
       100,
       std::nullopt,
       "/opt/tavix/bin/TavixComputerUseBridge",
       {"responsibleName=TavixComputerUseBridge", "responsiblePID=100", "responsibleIsSelf=true"},
       selfMessage(target, "TavixComputerUseBridge")},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    Authorizer a(-1743);
    a.permission->script(runtimePID, true, -1743);
    a.processes->responsible.clear();
    a.processes->localizedNames.clear();
    if (c.responsible)
      a.processes->responsible[100] = *c.responsible;
    if (c.localizedName)
      a.processes->localizedNames[*c.responsible] = *c.localizedName;
    if (c.executablePath)
      a.processes->executablePaths[*c.responsible] = *c.executablePath;

    const auto result = a.authorizer.ensureAuthorized(runtimePID, "ComputerUseIPCScrollRequest");
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind(), ClientError::Kind::automationNotAuthorized);
    EXPECT_EQ(result.error().description(), c.message);
    const auto lines = log.withEvent("automation_authorization_denied");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(hasField(lines[0], "level=error")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], "category=ipc")) << lines[0];
    EXPECT_TRUE(hasField(lines[0], "requestType=ComputerUseIPCScrollRequest")) << lines[0];
    for (const auto &field : c.fields)
      EXPECT_TRUE(hasField(lines[0], field)) << field << " in " << lines[0];
  }
}

TEST(AutomationAuthorizer, ARefusalLogsWhatIsNotKnownAsNil) {
  const struct {
    const char *name;
    std::optional<int32_t> responsible;
    std::vector<std::string> present;
  } cases[] = {
      {"no responsible process", std::nullopt,
       {"responsibleIsSelf=false", "responsibleName=nil", "responsiblePID=nil"}},
      {"a responsible process without a name", 300,
       {"responsiblePID=300", "responsibleIsSelf=false", "responsibleName=nil"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    CapturedLog log;
    Authorizer a(-1743);
    a.permission->script(runtimePID, true, -1743);
    a.processes->responsible.clear();
    a.processes->localizedNames.clear();
    if (c.responsible)
      a.processes->responsible[100] = *c.responsible;
    const auto result = a.authorizer.ensureAuthorized(runtimePID, getAppState);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().description(), hostMessage(target, "the application that started this MCP server"));
    const auto lines = log.withEvent("automation_authorization_denied");
    ASSERT_EQ(lines.size(), 1u);
    for (const auto &field : c.present)
      EXPECT_TRUE(hasField(lines[0], field)) << field << " in " << lines[0];
  }
}

TEST(ResponsibleProcess, AnswersOnlyProcessIdentifiersFromOne) {
  const struct {
    std::optional<int32_t> answer;
    std::optional<int32_t> expected;
  } cases[] = {
      {std::nullopt, std::nullopt}, {-1, std::nullopt}, {0, std::nullopt}, {1, 1}, {200, 200},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.answer.value_or(-999));
    FakeProcessInformation processes;
    if (c.answer)
      processes.responsible[100] = *c.answer;
    EXPECT_EQ(ResponsibleProcess(processes).processIdentifier(100), c.expected);
  }
}

TEST(ResponsibleProcess, AttributesThisProcess) {
  const struct {
    const char *name;
    std::optional<int32_t> responsible;
    Attribution expected;
  } cases[] = {
      {"a host app", 200, {200, "Tavix Desktop", false}},
      {"itself", 100, {100, "Bridge", true}},
      {"no answer", std::nullopt, {std::nullopt, std::nullopt, false}},
      {"no valid answer", 0, {std::nullopt, std::nullopt, false}},
      {"a process without a name", 300, {300, std::nullopt, false}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeProcessInformation processes;
    processes.self = 100;
    processes.localizedNames = {{200, "Tavix Desktop"}, {100, "Bridge"}};
    if (c.responsible)
      processes.responsible[100] = *c.responsible;
    EXPECT_EQ(ResponsibleProcess(processes).current(), c.expected);
  }
}

TEST(ResponsibleProcess, NamesAProcessByItsDesktopNameElseItsBundleElseItsFile) {
  const struct {
    const char *name;
    std::optional<std::string> localizedName, executablePath;
    std::optional<std::string> expected;
  } cases[] = {
      {"desktop name first", "Tavix Desktop", "/Applications/Other.app/Contents/MacOS/Other", "Tavix Desktop"},
      {"empty desktop name", "", "/Applications/Tavix.app/Contents/MacOS/Tavix", "Tavix"},
      {"bundle", std::nullopt, "/Applications/Tavix Desktop.app/Contents/MacOS/tavix", "Tavix Desktop"},
      {"nested bundles: the nearest", std::nullopt,
       "/Applications/Host.app/Contents/Frameworks/Helper.app/Contents/MacOS/helper", "Helper"},
      {"the path is the bundle", std::nullopt, "/Applications/Tavix.app", "Tavix"},
      {"a bare .app is no bundle", std::nullopt, "/opt/.app/bin/tavix", "tavix"},
      {"not quite a bundle", std::nullopt, "/opt/Tavix.apps/tavix-host", "tavix-host"},
      {"file name", std::nullopt, "/usr/bin/tavix-host", "tavix-host"},
      {"trailing separator", std::nullopt, "/usr/lib/tavix/", "tavix"},
      {"relative file", std::nullopt, "tavix-host", "tavix-host"},
      {"empty path", std::nullopt, "", std::nullopt},
      {"root", std::nullopt, "/", std::nullopt},
      {"only separators", std::nullopt, "///", std::nullopt},
      {"nothing known", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeProcessInformation processes;
    if (c.localizedName)
      processes.localizedNames[300] = *c.localizedName;
    if (c.executablePath)
      processes.executablePaths[300] = *c.executablePath;
    EXPECT_EQ(ResponsibleProcess(processes).name(300), c.expected);
  }
}

TEST(ResponsibleProcess, FindsTheNearestEnclosingApplication) {
  const struct {
    const char *path;
    std::optional<std::string> expected;
  } cases[] = {
      {"/Applications/Tavix.app/Contents/MacOS/Tavix", "Tavix"},
      {"/A.app/B.app/C.app/x", "C"},
      {"/A.app/Contents/B.app/", "B"},
      {"x.app", "x"},
      {"/.app/x", std::nullopt},
      {"/A.app.d/x", std::nullopt},
      {"/usr/bin/tavix", std::nullopt},
      {"", std::nullopt},
      {"/", std::nullopt},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(ResponsibleProcess::enclosingApplicationName(c.path), c.expected);
  }
}

} // namespace
} // namespace tavix::test
