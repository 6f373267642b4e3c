#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/sim/SimFixture.h"

namespace Agent::Sim::Test {
namespace {

// The reason for which a world file of these lines is refused; "" if it is not.
std::string refusal(const std::string& text) {
    char name[] = "/tmp/world-XXXXXX";
    close(mkstemp(name));
    std::ofstream(name) << text;
    std::string reason;
    try {
        readHistoryFile(name);
    } catch (const JsonError& error) {
        reason = error.what();
        EXPECT_EQ(reason.find(name), 0u) << "names the file";
        reason.erase(0, sizeof name + 1);
    }
    std::remove(name);
    return reason;
}

TEST(World, RefusesWhatCannotBe) {
    const std::string lan = R"({"interfaces": {"lan": {"vrf": "default"}},)"
                            "\n";
    const std::pair<std::string, std::string> cases[] = {
        {"{\n\"interfaces\": {}", "line 2, column 17: "},
        {"[]", "line 1: expected an object, got []"},
        {"{\n\"speeds\": 1}", "line 2: /speeds: there is no such attribute"},
        {"{\"speed\": 0}", "line 1: /speed: expected a number from 0.001 to 1000, got 0"},
        {"{\"programmingDelay\": -1}",
         "line 1: /programmingDelay: expected milliseconds from 0 to 86400000, got -1"},
        {"{\"interfaces\": {\n\"a\": {\n\"up\": 1}}}",
         "line 3: /interfaces/a/up: expected true or false, got 1"},
        {"{\"interfaces\": {\n\"a b\": {}}}", "line 2: /interfaces/a b: expected an interface"},
        {"{\"interfaces\": {\"a\": {\n\"v4\": \"192.0.2.1\"}}}", "line 2: /interfaces/a/v4: "},
        {"{\"interfaces\": {\"a\": {\n\"v4\": \"2001:db8::1/64\"}}}",
         "line 2: /interfaces/a/v4: expected an IPv4 address"},
        {"{\"interfaces\": {\n\"a\": {\"vrf\": \"blue\"}}}",
         "line 2: /interfaces/a: VRF \"blue\" is not there"},
        {"{\"vrfs\": {\n\"" + std::string(101, 'x') + "\": {}}}", "line 2: /vrfs/xxx"},
        {"{\"vrfs\": {\"a\": {\"id\": 7},\n\"b\": {\"id\": 7}}}",
         "line 2: /vrfs/b: has the id of VRF \"a\""},
        {"{\"vrfs\": {\n\"default\": {\"id\": 7}}}", "line 2: /vrfs/default: its id is 0"},
        {lan + R"("vrfs": {"default": {"routes": {"198.51.100.0/24": [{"interface": "lan"},
                  {"interface": "wan"}]}}}})",
         "line 3: /vrfs/default/routes/198.51.100.0~124/1: expected an interface of VRF"},
        {lan +
             R"("vrfs": {"a": {"id": 1, "routes": {"198.51.100.0/24": [{"interface": "lan"}]}}}})",
         "line 2: /vrfs/a/routes/198.51.100.0~124/0: expected an interface of VRF \"a\""},
        {lan + R"("vrfs": {"default": {"routes": {"2001:db8::/32": [{"interface": "lan"}],
                  "2001:DB8::/32": []}}}})",
         "line 3: /vrfs/default/routes/2001:DB8::~132: is there already"},
        {lan + R"("vrfs": {"default": {"routes": {"2001:db8::/32": [{"interface": "lan",
                  "gateway": "192.0.2.1"}]}}}})",
         "line 2: /vrfs/default/routes/2001:db8::~132/0: the gateway is of another"},
        {R"({"vrfs": {"default": {"peers": {"192.0.2.1": {
                  "fault": "lazy"}}}}})",
         "line 2: /vrfs/default/peers/192.0.2.1/fault: expected one of none refuses silent"},
        {R"({"vrfs": {"default": {"peers": {"192.0.2.1": {"rekeyInterval": 9, "lifetime": 9}}}}})",
         "line 1: /vrfs/default/peers/192.0.2.1/lifetime: must be longer than rekeyInterval"},
        {R"({"vrfs": {"default": {"peers": {"192.0.2.1": {"retry": 5}}}}, "speed": 10})",
         "line 1: /vrfs/default/peers/192.0.2.1/retry: is less than 1 ms of real time"},
        {"{\"events\": [\n{\"interfaces\": {}}]}", "line 2: /events/0: expected an object with"},
        {"{\"events\": [{\"at\": 5},\n{\"at\": 4}]}", "line 2: /events/1/at: comes before"},
        {"{\"events\": [{\"at\": 5},\n{\"at\": 6, \"events\": []}]}",
         "line 2: /events/1/events: there is no such attribute"},
        // Each event is fine by itself; the second takes away what the first one uses.
        {"{\"events\": [{\"at\": 5, \"vrfs\": {\"a\": {}}, \"interfaces\": {\"i\": {\"vrf\": "
         "\"a\"}}},"
         "\n{\"at\": 6, \"vrfs\": {\"a\": null}}]}",
         "line 2: /events/1/interfaces/i: VRF \"a\" is not there"},
    };
    for (const auto& [text, reason] : cases)
        EXPECT_EQ(refusal(text).substr(0, reason.size()), reason) << text << "\n" << refusal(text);
    EXPECT_EQ(refusal("{}"), "");
    EXPECT_THROW(readHistoryFile("/nonexistent"), JsonError);
}

TEST(World, SpeedShortensAllTimes) {
    const History history = readHistory(Json::parse(
        R"({"speed": 4, "programmingDelay": 8, "events": [{"at": 1000, "programmingDelay": 2}]})"));
    EXPECT_EQ(history.first.programmingDelay, 2ms);
    ASSERT_EQ(history.steps.size(), 1u);
    EXPECT_EQ(history.steps[0].at, 250ms);
    EXPECT_EQ(history.steps[0].world.programmingDelay, 500us);
}

}  // namespace
}  // namespace Agent::Sim::Test
