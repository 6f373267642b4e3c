// The control socket: whatever a client sends, each of its lines is answered once, in JSON, and the
// agent goes on. The agent plays the example branch, whose paths are up when the client comes.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "agent/base/RunDir.h"
#include "agent/model/Config.h"
#include "agent/sim/SimPlatform.h"
#include "tests/InProcess.h"
#include "tests/TempDir.h"

namespace {

using namespace std::chrono_literals;

class Branch : public InProcess {
  public:
    explicit Branch(const std::string& socket) : socket_(socket) {
        startAgent(std::make_unique<Agent::Sim::SimPlatform>(NAV_EXAMPLES "/branch/world.json"));
        server_.emplace(loop_, socket, *control);
        static const std::string config = Agent::readFile(NAV_EXAMPLES "/branch/branch.json");
        ask({{"op", "load"}, {"value", Agent::parseJson(config)}});
        pass(3s);
    }

    // All that the agent says to a client who sends this and hears it to the end.
    std::string answersTo(std::string_view text) {
        const sockaddr_un address = Agent::socketAddress(socket_);
        const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        VEL_ASSERT(
            connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            "cannot connect");
        std::string answers;
        std::array<char, 65536> bytes;
        for (bool sent = false; true; loop_.runOnce(10ms)) {
            if (!sent) {
                const ssize_t count = send(client, text.data(), text.size(), MSG_NOSIGNAL);
                if (count > 0) text.remove_prefix(static_cast<size_t>(count));
                sent = text.empty();
                if (sent) shutdown(client, SHUT_WR);
            }
            ssize_t count;
            while ((count = recv(client, bytes.data(), bytes.size(), 0)) > 0)
                answers.append(bytes.data(), static_cast<size_t>(count));
            if (count == 0) break;
        }
        close(client);
        return answers;
    }

  private:
    Agent::EventLoop loop_{*scheduler};
    const std::string socket_;
    std::optional<Agent::ControlServer> server_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempDir run;
    const auto alive = Vel::liveObjects();
    {
        const std::string text(reinterpret_cast<const char*>(data), size);
        Branch branch(run.path + "/control.sock");
        const std::string answers = branch.answersTo(text);
        branch.pass(5s);  // over the failure of a link

        long expected =
            std::count(text.begin(), text.end(), '\n') + (!text.empty() && text.back() != '\n');
        for (std::string_view rest = answers; !rest.empty();) {
            const size_t end = rest.find('\n');
            VEL_ASSERT(end != rest.npos, "an answer without its end");
            const Agent::Json answer = Agent::parseJson(rest.substr(0, end));
            VEL_ASSERT(answer.contains("ok") != answer.contains("event"), "no answer");
            expected -= answer.contains("ok");
            rest.remove_prefix(end + 1);
        }
        VEL_ASSERT(expected == 0, "not one answer to each line");
    }
    VEL_ASSERT(Vel::liveObjects() == alive, "something is left");
    return 0;
}
