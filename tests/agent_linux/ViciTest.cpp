// The IPsec service against a charon that the test plays: recorded bytes, in pieces, damaged, or
// none.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <random>

#include "agent/linux/ipsec/IpsecService.h"
#include "tests/TempDir.h"

namespace Agent::Linux {
namespace {

using std::chrono::milliseconds;
using Vici::Packet;
using Vici::Type;

std::string recorded(const char* name) {
    return readFile(std::string(NAV_RECORDED "/../vici/") + name).substr(1);  // see ViciFuzz.cpp
}

TEST(Vici, RecordedBytesAreReadInAnyPiecesAndWrittenTheSame) {
    std::string all;
    for (const char* name : {"confirmed", "stats", "list-sa", "child-updown"})
        all += recorded(name);
    std::mt19937 random(1);
    for (int round = 0; round < 50; ++round) {
        Vici::Stream stream;
        std::string again;
        for (size_t at = 0, size; at < all.size(); at += size) {
            size = round == 0 ? 1 : random() % 700;
            stream.append(std::string_view(all).substr(at, size));
            while (const auto packet = stream.next()) again += Vici::encode(*packet);
        }
        EXPECT_EQ(again, all);
    }
    const std::vector<IkeSa> sas = sasOf(Vici::decode(recorded("list-sa").substr(4)).message);
    ASSERT_EQ(sas.size(), 1u);
    ASSERT_EQ(sas[0].children.size(), 1u);
    EXPECT_TRUE(sas[0].established() && sas[0].children[0].carries() && sas[0].answered);
    EXPECT_EQ(sas[0].local.stringValue(), "198.51.100.17");
    EXPECT_EQ(sas[0].children[0].cipher, "AES_GCM_16-256");
}

// Answers the commands of an IpsecService as charon does, as far as the service can tell.
class FakeCharon {
  public:
    FakeCharon(EventLoop& loop, const std::string& path) : loop_(loop), path_(path) { listen(); }
    ~FakeCharon() { vanish(); }

    void vanish() {
        clients_.clear();
        accepting_ = {};
        close(listener_);
        unlink(path_.c_str());
    }
    void listen() {
        sockaddr_un address{AF_UNIX, {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener_, 10), 0);
        accepting_ = loop_.onReadable(listener_, [this] {
            Client& client = clients_.emplace_back();
            client.fd = accept(listener_, nullptr, nullptr);
            client.readable = loop_.onReadable(client.fd, [this, &client] { serve(client); });
        });
    }
    // Has everybody who is connected read this.
    void say(const std::string& bytes) {
        for (const Client& client : clients_) (void)!write(client.fd, bytes.data(), bytes.size());
    }

    std::vector<std::string> initiated;  // names of connections
    std::map<std::string, Json> loaded;  // by name
    std::vector<Packet> sas;             // what list-sas gives
    unsigned lists = 0;                  // how often it did
    bool silent = false;                 // gives no answers

  private:
    struct Client {
        ~Client() { close(fd); }
        int fd = -1;
        EventLoop::Registration readable;
        Vici::Stream stream;
    };
    void serve(Client& client) {
        char bytes[4096];
        const ssize_t count = read(client.fd, bytes, sizeof bytes);
        if (count <= 0) return client.readable = {}, void();
        client.stream.append({bytes, static_cast<size_t>(count)});
        while (const auto packet = client.stream.next())
            if (!silent) answer(client, *packet);
    }
    void answer(Client& client, const Packet& packet) {
        if (packet.type == Type::subscribe) return send(client, {Type::confirmed});
        Json message = {{"success", "yes"}};
        if (packet.name == "stats") message = {{"plugins", Json::array({"charon", "vici"})}};
        if (packet.name == "load-conn")
            loaded[packet.message.begin().key()] = packet.message.begin().value();
        if (packet.name == "get-conns") {
            message = {{"conns", Json::array()}};
            for (const auto& [name, connection] : loaded) message["conns"].push_back(name);
        }
        if (packet.name == "unload-conn") loaded.erase(packet.message["name"]);
        if (packet.name == "initiate") initiated.push_back(packet.message["ike"]);
        if (packet.name == "list-sas" && ++lists != 0)
            for (const Packet& sa : sas) send(client, sa);
        send(client, {Type::response, {}, message});
    }
    void send(Client& client, const Packet& packet) {
        const std::string bytes = Vici::encode(packet);
        for (const char byte : bytes) (void)!write(client.fd, &byte, 1);  // in pieces
    }

    EventLoop& loop_;
    const std::string path_;
    int listener_ = -1;
    EventLoop::Registration accepting_;
    std::deque<Client> clients_;
};

class IpsecServiceTest : public ::testing::Test {
  protected:
    IpsecServiceTest() {
        auto& profile = config->profileIs("p");
        profile.presharedKeyIs({"s3cret"});
        profile.dpdTimeoutIs(1);
        request();
        service.emplace(loop, in, config, socket);
    }
    void request() {
        in.ipsecPathConfigDir->ipsecPathConfigIs(key, [](Ipsec::Path::PathConfig& request) {
            request.profileIs("p");
            request.connectionNameIs("Path7");
        });
    }
    // An IKE_SA of the path, whose CHILD_SA, if it has one, is of the settings last loaded.
    void associate(const char* state, bool child, bool waits = false) {
        Json sa = {{"uniqueid", "5"},
                   {"state", state},
                   {"local-host", "192.0.2.1"},
                   {"remote-host", "192.0.2.2"},
                   {"responder-spi", "0000000000000000"}};
        if (waits) sa["tasks-active"] = Json::array({"IKE_DPD"});
        if (child)
            sa["child-sas"] = {{"c",
                                {{"name", charon.loaded.at("Path7")["children"].begin().key()},
                                 {"state", "INSTALLED"}}}};
        charon.sas = {{Type::event, "list-sa", {{"Path7", sa}}}};
    }
    ::testing::AssertionResult await(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end)
                return ::testing::AssertionFailure() << dumpLine(service->report());
            loop.runOnce(milliseconds(5));
        }
        return ::testing::AssertionSuccess();
    }
    bool is(Vel::U32 state) {
        const auto* status = in.ipsecPathStatusDir->ipsecPathStatus(key);
        return status && status->connectionState() == state;
    }
    bool says(const char* reason) {
        return service->report().begin()->at("error").dump().find(reason) != std::string::npos;
    }

    static constexpr Vel::U32 connecting = 1, established = 3, failed = 4;
    const TempDir directory;
    const std::string socket = directory.path + "/vici";
    Loom::MonotonicClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    EventLoop loop{*scheduler};
    FakeCharon charon{loop, socket};
    const Nav::NavInputs in = Nav::makeNavInputs(scheduler);
    const IpsecPtr config = makeIpsec();
    const Ipsec::ConnectionKey key{*Netz::IpGenAddr::parse("192.0.2.1"),
                                   *Netz::IpGenAddr::parse("192.0.2.2"), L3::VrfName("default")};
    std::optional<IpsecService> service;
};

TEST_F(IpsecServiceTest, AConnectionIsInitiatedOnceAndFollowsCharonsList) {
    EXPECT_TRUE(await([&] { return is(connecting) && !charon.initiated.empty(); }));
    const auto* status = in.ipsecPathStatusDir->ipsecPathStatus(key);
    associate("CONNECTING", false);
    EXPECT_TRUE(await([&] { return service->report().begin()->at("state") == "connecting"; }));
    const auto quiet = clock.now() + std::chrono::milliseconds(2500);
    EXPECT_TRUE(await([&] { return clock.now() > quiet; }));
    EXPECT_EQ(charon.initiated.size(), 1u) << "while it is connecting";
    associate("ESTABLISHED", true);
    EXPECT_TRUE(await([&] { return is(established); }));
    const Vel::U32 encapId = status->encapId();
    EXPECT_EQ(std::to_string(encapId),
              charon.loaded["Path7"]["children"].begin().value()["reqid"].get<std::string>());
    // Neither IKE_SA has the CHILD_SA while it moves from one to the other.
    associate("ESTABLISHED", false);
    EXPECT_TRUE(await([&, before = charon.lists] { return charon.lists != before; }));
    associate("ESTABLISHED", true);
    bool stays = true;
    EXPECT_TRUE(await([&, before = charon.lists] {
        stays = stays && is(established);
        return charon.lists > before + 1;
    }));
    EXPECT_TRUE(stays);
    associate("ESTABLISHED", true, true);
    EXPECT_TRUE(await([&] { return is(failed) && says("does not answer"); }));
    EXPECT_EQ(status->encapId(), Ipsec::Path::noEncapId);
    // What charon logs is the reason of the next failure.
    EXPECT_TRUE(await([&] { return is(connecting); }));
    charon.say(Vici::encode(
        {Type::event,
         "log",
         {{"msg", "received AUTHENTICATION_FAILED notify"}, {"ikesa-name", "Path7"}}}));
    charon.sas.clear();
    EXPECT_TRUE(await([&] { return is(failed) && says("authentication failed"); }));
    // Settings that charon has are kept, those of a profile that has gone are not.
    config->profileDel("p");
    service->configured();
    EXPECT_TRUE(await([&] { return charon.loaded.empty() && says("not configured"); }));
    in.ipsecPathConfigDir->ipsecPathConfigDel(key);
    EXPECT_FALSE(in.ipsecPathStatusDir->ipsecPathStatus(key)) << "without a request";
}

TEST_F(IpsecServiceTest, GarbageAndTheEndOfCharonEndInANewSessionThatAdoptsWhatStands) {
    EXPECT_TRUE(await([&] { return !charon.initiated.empty(); }));
    associate("ESTABLISHED", true);
    EXPECT_TRUE(await([&] { return is(established); }));
    for (const std::string& garbage : {std::string("\xff\xff\xff\xff"), std::string(4, '\0'),
                                       std::string("\0\0\0\2\7\x50", 6), recorded("stats")}) {
        charon.say(garbage);
        EXPECT_TRUE(await([&] { return is(failed); })) << "the session ends";
        EXPECT_TRUE(await([&] { return is(established); }));
    }
    charon.loaded.clear();  // by somebody else
    EXPECT_TRUE(await([&] { return charon.loaded.contains("Path7") && is(established); }));
    charon.vanish();
    EXPECT_TRUE(await([&] { return is(failed) && says("No such file"); })) << "the latest reason";
    charon.loaded.clear();
    charon.listen();
    EXPECT_TRUE(await([&] { return is(established); }));
    EXPECT_TRUE(charon.loaded.contains("Path7"));
    EXPECT_EQ(charon.initiated.size(), 1u);
}

}  // namespace
}  // namespace Agent::Linux
