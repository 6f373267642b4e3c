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

TEST(World, ARefusalNamesFileLinePlaceAndReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"{\n\"interfaces\": {}", "line 2, column 17: "},
        {"{\n\"speeds\": 1}", "line 2: /speeds: attribute not found"},
        {"{\"speed\": 0}", "line 1: /speed: expected a number from 0.001 to 1000, got 0"},
        {"{\"programmingDelay\": -1}",
         "line 1: /programmingDelay: expected milliseconds from 0 to 86400000, got -1"},
        {"{\"interfaces\": {\"a\": {\n\"v4\": \"2001:db8::1/64\"}}}",
         "line 2: /interfaces/a/v4: expected an IPv4 address"},
        {"{\"interfaces\": {\n\"a\": {\"vrf\": \"blue\"}}}",
         "line 2: /interfaces/a: VRF \"blue\" not found"},
        {"{\"vrfs\": {\"a\": {\"id\": 7},\n\"b\": {\"id\": 7}}}",
         "line 2: /vrfs/b: has the same id as VRF \"a\""},
        {R"({"interfaces": {"lan": {}},
             "vrfs": {"a": {"id": 1, "routes": {"198.51.100.0/24": [{"interface": "lan"}]}}}})",
         "line 2: /vrfs/a/routes/198.51.100.0~124/0: expected an interface of VRF \"a\""},
        {R"({"interfaces": {"lan": {}}, "vrfs": {"default": {"routes": {"2001:db8::/32": [],
             "2001:DB8::/32": []}}}})",
         "line 2: /vrfs/default/routes/2001:DB8::~132: duplicate"},
        {R"({"vrfs": {"default": {"peers": {"192.0.2.1": {"rekeyInterval": 9, "lifetime": 9}}}}})",
         "line 1: /vrfs/default/peers/192.0.2.1/lifetime: must be longer than rekeyInterval"},
        {R"({"vrfs": {"default": {"peers": {"192.0.2.1": {"retry": 5}}}}, "speed": 10})",
         "line 1: /vrfs/default/peers/192.0.2.1/retry: must be at least 1 ms of real time"},
        {"{\"events\": [{\"at\": 5},\n{\"at\": 4}]}", "line 2: /events/1/at: must not be less"},
        // Each event is valid by itself; the second removes what the first one uses.
        {"{\"events\": [{\"at\": 5, \"vrfs\": {\"a\": {}}, \"interfaces\": {\"i\": {\"vrf\": "
         "\"a\"}}},"
         "\n{\"at\": 6, \"vrfs\": {\"a\": null}}]}",
         "line 2: /events/1/interfaces/i: VRF \"a\" not found"},
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
