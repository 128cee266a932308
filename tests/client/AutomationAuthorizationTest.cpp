// The automation check before a send: how probe statuses read, the one prompt per
// process, remembered runtimes, sends that go ahead when the probe cannot tell, the
// remediation texts and log lines of a refusal; and the responsible process they name.

#include "client/AutomationAuthorization.h"
#include "client/ResponsibleProcess.h"

#include "fakes/CapturedLog.h"
#include "fakes/FakeAutomationPermission.h"
#include "fakes/FakeProcessInformation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <limits>
#include <thread>

namespace tavix::test {
namespace {

using Authorization = AppleEventsAutomationAuthorization;
using Kind = Authorization::Kind;
using Attribution = ResponsibleProcess::Attribution;
using Probe = FakeAutomationPermission::Probe;
using ::testing::HasSubstr;

constexpr int32_t runtimePID = 4321;
constexpr const char *getAppState = "ComputerUseIPCGetAppStateRequest";
const std::string refused = "Computer Use is not authorized to control Other Runtime through macOS Automation. "
                            "macOS returned errAEEventNotPermitted (-1743).\n\n";

std::string selfMessage(const std::string &responsible) {
  return refused + "macOS holds " + responsible + " itself responsible for this request instead of a host "
         "application, so no Automation entry can be granted for it. Start the Computer Use MCP server from its host "
         "application, then retry.";
}
std::string hostMessage(const std::string &host = "Tavix Desktop") {
  return refused + "Open System Settings > Privacy & Security > Automation, find " + host +
         ", and enable Other Runtime underneath it. Then quit and relaunch " + host + " before retrying.";
}

// An authorizer over scripted probes, for a bridge (pid 100) that a host app (pid 200,
// "Tavix Desktop") started; probes of the runtime answer `quiet`, or `prompt` when the
// user may be asked.
struct Authorizer {
  explicit Authorizer(int32_t quiet, int32_t prompt = 0) : permission(std::make_shared<FakeAutomationPermission>(quiet)) {
    permission->script(runtimePID, true, prompt);
    processes->responsible[100] = 200;
    processes->localizedNames[200] = "Tavix Desktop";
  }
  std::shared_ptr<FakeAutomationPermission> permission;
  std::shared_ptr<FakeProcessInformation> processes = std::make_shared<FakeProcessInformation>();
  AutomationAuthorizer authorizer{permission, processes, [] { return std::string("Other Runtime"); }};
  CapturedLog log;
  tl::expected<void, ClientError> ensure(int32_t pid = runtimePID, std::string_view type = getAppState) {
    return authorizer.ensureAuthorized(pid, type);
  }
};

TEST(AppleEventsAutomationAuthorization, ReadsProbeStatuses) {
  const struct {
    int32_t osStatus;
    Kind kind;
    const char *description;
  } cases[] = {
      {0, Kind::authorized, "authorized"},           {-1744, Kind::requiresUserConsent, "requiresUserConsent"},
      {-1743, Kind::denied, "denied"},               {-600, Kind::targetNotFound, "targetNotFound"},
      {-1745, Kind::failed, "failed(-1745)"},        {-1742, Kind::failed, "failed(-1742)"},
      {-601, Kind::failed, "failed(-601)"},          {-599, Kind::failed, "failed(-599)"},
      {1, Kind::failed, "failed(1)"},                {-1, Kind::failed, "failed(-1)"},
      {std::numeric_limits<int32_t>::min(), Kind::failed, "failed(-2147483648)"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.osStatus);
    const auto status = Authorization::status(c.osStatus);
    EXPECT_EQ(status, (Authorization::Status{c.kind, c.kind == Kind::failed ? c.osStatus : 0}));
    EXPECT_EQ(status.description(), c.description);
    EXPECT_EQ(status.isAuthorized(), c.kind == Kind::authorized);
    EXPECT_EQ(status.isAuthorizationProblem(), c.kind == Kind::requiresUserConsent || c.kind == Kind::denied);
    EXPECT_EQ(Authorization::isNotPermitted(c.osStatus), c.osStatus == -1743);
  }
}

TEST(AutomationAuthorizer, ProbesQuietlyThenAsksTheUserOnceAndRemembersOnlyAuthorizedRuntimes) {
  const Probe quiet{runtimePID, false}, asked{runtimePID, true};
  const struct {
    const char *name;
    int32_t quiet, prompt; // the probe's status, quietly and when the user may be asked
    bool proceeds;
    std::vector<Probe> probes;
    bool remembered;     // a second request for the runtime probes nothing
    bool secondProceeds; // the second request: the user was asked already if at all
  } cases[] = {
      {"authorized", 0, 0, true, {quiet}, true, true},
      {"consent given at the prompt", -1744, 0, true, {quiet, asked}, true, true},
      {"denied, then granted at the prompt", -1743, 0, true, {quiet, asked}, true, true},
      {"consent refused at the prompt", -1744, -1743, false, {quiet, asked}, false, false},
      {"prompt still needs consent", -1744, -1744, false, {quiet, asked}, false, false},
      {"denied at both probes", -1743, -1743, false, {quiet, asked}, false, false},
      {"prompt finds no target", -1744, -600, true, {quiet, asked}, false, false},
      {"prompt fails", -1744, -50, true, {quiet, asked}, false, false},
      {"no target", -600, 0, true, {quiet}, false, true},
      {"probe fails", -1, 0, true, {quiet}, false, true},
      {"probe fails next to consent", -1745, 0, true, {quiet}, false, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Authorizer a(c.quiet, c.prompt);
    const auto first = a.ensure();
    EXPECT_EQ(first.has_value(), c.proceeds);
    EXPECT_EQ(a.permission->probes(), c.probes);
    // A later request: an authorized runtime is not probed again; otherwise it is probed
    // quietly, and the user, asked once already when the first needed it, is not asked again.
    const auto second = a.ensure();
    EXPECT_EQ(second.has_value(), c.secondProceeds);
    for (const auto &result : {first, second})
      if (!result)
        EXPECT_EQ(result.error(), ClientError::automationNotAuthorized(hostMessage()));
    auto probes = c.probes;
    if (!c.remembered)
      probes.push_back(quiet);
    EXPECT_EQ(a.permission->probes(), probes);
    // The prompt is logged with what the quiet probe said.
    const auto prompts = a.log.withEvent("automation_authorization_prompt_requested");
    ASSERT_EQ(prompts.size(), c.probes.size() - 1);
    for (const auto &line : prompts) {
      EXPECT_THAT(line, HasSubstr(" level=warning "));
      EXPECT_THAT(line, HasSubstr("category=ipc event=automation_authorization_prompt_requested probeStatus=" +
                                  Authorization::status(c.quiet).description() + " requestType=" + getAppState));
    }
  }
}

TEST(AutomationAuthorizer, TheOnePromptIsPerBridgeAndEachAuthorizedRuntimeIsRememberedByItsProcess) {
  Authorizer a(-1744, -1743);
  a.permission->script(runtimePID + 1, false, 0);
  EXPECT_FALSE(a.ensure().has_value());
  EXPECT_TRUE(a.ensure(runtimePID + 1).has_value());
  a.permission->script(runtimePID + 2, false, -1744);
  EXPECT_EQ(a.ensure(runtimePID + 2).error().description(), hostMessage()) << "no second prompt";
  a.permission->script(runtimePID + 1, false, -1743); // would refuse now, but is not asked
  EXPECT_TRUE(a.ensure(runtimePID + 1).has_value());
  EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}, {runtimePID, true},
                                                        {runtimePID + 1, false}, {runtimePID + 2, false}}));
}

TEST(AutomationAuthorizer, ACancellationNeverPromptsAndLeavesThePromptToTheNextRequest) {
  for (int32_t quiet : {-1744, -1743}) {
    SCOPED_TRACE(quiet);
    Authorizer a(quiet, 0); // the user would allow it
    EXPECT_EQ(a.ensure(runtimePID, "ComputerUseIPCCancelRequest").error().description(), hostMessage());
    EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}}));
    EXPECT_TRUE(a.log.withEvent("automation_authorization_prompt_requested").empty());
    EXPECT_EQ(a.log.withEvent("automation_authorization_denied").size(), 1u);
    EXPECT_TRUE(a.ensure().has_value());
    EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}, {runtimePID, false}, {runtimePID, true}}));
  }
}

TEST(AutomationAuthorizer, ARequestDuringThePromptFailsAtOnceWithoutPrompting) {
  Authorizer a(-1744, 0);
  std::promise<void> promptShown, promptAnswered;
  auto answered = promptAnswered.get_future().share();
  a.permission->setHook([&, answered](const Probe &probe) {
    if (probe.askUserIfNeeded) {
      promptShown.set_value();
      answered.wait();
    }
  });
  auto prompting = std::async(std::launch::async, [&] { return a.ensure(); });
  promptShown.get_future().wait();
  const auto concurrent = a.ensure(runtimePID, "ComputerUseIPCClickRequest");
  promptAnswered.set_value();
  EXPECT_TRUE(prompting.get().has_value()); // the user granted it
  EXPECT_EQ(concurrent.error(), ClientError::automationNotAuthorized(hostMessage()));
  EXPECT_EQ(a.permission->probes(), (std::vector<Probe>{{runtimePID, false}, {runtimePID, true}, {runtimePID, false}}));
}

TEST(AutomationAuthorizer, ARefusalNamesTheResponsibleProcessInItsErrorAndLogLine) {
  const struct {
    const char *name;
    std::optional<int32_t> responsible;
    std::optional<std::string> localizedName, executablePath; // of the responsible process
    std::string fields, message;
  } cases[] = {
      {"a host app", 200, "Tavix Desktop", std::nullopt,
       "responsibleIsSelf=false responsibleName=\"Tavix Desktop\" responsiblePID=200",
       "Computer Use is not authorized to control Other Runtime through macOS Automation. macOS returned "
       "errAEEventNotPermitted (-1743).\n\nOpen System Settings > Privacy & Security > Automation, find Tavix "
       "Desktop, and enable Other Runtime underneath it. Then quit and relaunch Tavix Desktop before retrying."},
      {"a host known by its bundle", 300, std::nullopt, "/Applications/Tavix.app/Contents/MacOS/Tavix",
       "responsibleIsSelf=false responsibleName=Tavix responsiblePID=300", hostMessage("Tavix")},
      {"a host named by white space", 300, " \t\n ", std::nullopt,
       "responsibleIsSelf=false responsibleName=\" ",
       hostMessage("the application that started this MCP server")},
      {"the bridge itself", 100, std::nullopt, "/opt/tavix/bin/TavixComputerUseBridge",
       "responsibleIsSelf=true responsibleName=TavixComputerUseBridge responsiblePID=100",
       "Computer Use is not authorized to control Other Runtime through macOS Automation. macOS returned "
       "errAEEventNotPermitted (-1743).\n\nmacOS holds TavixComputerUseBridge itself responsible for this request "
       "instead of a host application, so no Automation entry can be granted for it. Start the Computer Use MCP "
       "server from its host application, then retry."},
      {"the bridge itself, without a name", 100, std::nullopt, std::nullopt,
       "responsibleIsSelf=true responsibleName=nil responsiblePID=100", selfMessage("this MCP server process")},
      {"no responsible process", std::nullopt, std::nullopt, std::nullopt,
       "responsibleIsSelf=false responsibleName=nil responsiblePID=nil",
       hostMessage("the application that started this MCP server")},
      {"a responsible process without a name", 300, std::nullopt, std::nullopt,
       "responsibleIsSelf=false responsibleName=nil responsiblePID=300",
       hostMessage("the application that started this MCP server")},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Authorizer a(-1743, -1743);
    a.processes->responsible.clear();
    a.processes->localizedNames.clear();
    if (c.responsible)
      a.processes->responsible[100] = *c.responsible;
    if (c.localizedName)
      a.processes->localizedNames[*c.responsible] = *c.localizedName;
    if (c.executablePath)
      a.processes->executablePaths[*c.responsible] = *c.executablePath;
    const auto result = a.ensure(runtimePID, "ComputerUseIPCScrollRequest");
    EXPECT_EQ(result.error(), ClientError::automationNotAuthorized(c.message));
    const auto lines = a.log.withEvent("automation_authorization_denied");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr(" level=error "));
    EXPECT_THAT(lines[0], HasSubstr(" category=ipc "));
    EXPECT_THAT(lines[0], HasSubstr(" requestType=ComputerUseIPCScrollRequest " + c.fields));
  }
}

TEST(ResponsibleProcess, AttributesThisProcessToAValidResponsibleProcess) {
  const struct {
    std::optional<int32_t> responsible;
    Attribution expected;
  } cases[] = {
      {200, {200, "Tavix Desktop", false}}, {100, {100, "Bridge", true}},
      {300, {300, std::nullopt, false}},    {1, {1, std::nullopt, false}},
      {0, {std::nullopt, std::nullopt, false}}, {-1, {std::nullopt, std::nullopt, false}},
      {std::nullopt, {std::nullopt, std::nullopt, false}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.responsible.value_or(-999));
    FakeProcessInformation processes;
    processes.localizedNames = {{200, "Tavix Desktop"}, {100, "Bridge"}};
    if (c.responsible)
      processes.responsible[100] = *c.responsible;
    EXPECT_EQ(ResponsibleProcess(processes).current(), c.expected);
    EXPECT_EQ(ResponsibleProcess(processes).processIdentifier(100), c.expected.processIdentifier);
  }
}

TEST(ResponsibleProcess, NamesAProcessByItsDesktopNameElseItsNearestBundleElseItsFile) {
  const struct {
    std::optional<std::string> localizedName, executablePath;
    std::optional<std::string> expected;
  } cases[] = {
      {"Tavix Desktop", "/Applications/Other.app/Contents/MacOS/Other", "Tavix Desktop"},
      {"", "/Applications/Tavix.app/Contents/MacOS/Tavix", "Tavix"},
      {std::nullopt, "/Applications/Tavix Desktop.app/Contents/MacOS/tavix", "Tavix Desktop"},
      {std::nullopt, "/Applications/Host.app/Contents/Frameworks/Helper.app/Contents/MacOS/helper", "Helper"},
      {std::nullopt, "/A.app/Contents/B.app/", "B"},
      {std::nullopt, "x.app", "x"},
      {std::nullopt, "/opt/.app/bin/tavix", "tavix"},
      {std::nullopt, "/opt/Tavix.apps/tavix-host", "tavix-host"},
      {std::nullopt, "/usr/lib/tavix/", "tavix"},
      {std::nullopt, "tavix-host", "tavix-host"},
      {std::nullopt, "", std::nullopt},
      {std::nullopt, "///", std::nullopt},
      {std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.executablePath.value_or("no path"));
    FakeProcessInformation processes;
    if (c.localizedName)
      processes.localizedNames[300] = *c.localizedName;
    if (c.executablePath)
      processes.executablePaths[300] = *c.executablePath;
    EXPECT_EQ(ResponsibleProcess(processes).name(300), c.expected);
  }
}

} // namespace
} // namespace tavix::test
