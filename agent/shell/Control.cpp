#include "agent/shell/Control.h"

#include <unistd.h>

#include <set>

#include "agent/model/DatumJson.h"
#include "agent/shell/AgentTrace.h"
#include "platform/trace/Ringlog.h"

namespace Agent {

namespace {

const Json& member(const Json& request, const char* name) {
    const auto found = request.find(name);
    if (found == request.end()) throw RequestError(std::string(name) + ": required");
    return *found;
}

std::string text(const Json& request, const char* name) {
    const Json& value = member(request, name);
    if (!value.is_string()) throw RequestError(std::string(name) + ": expected a string");
    return value.get<std::string>();
}

// Its member "last".
size_t countIn(const Json& request, size_t otherwise) {
    const auto last = request.find("last");
    if (last == request.end()) return otherwise;
    if (!last->is_number_unsigned()) throw RequestError("last: expected a whole number");
    return last->get<size_t>();
}

bool flag(const Json& request, const char* name) {
    const auto found = request.find(name);
    if (found == request.end()) return false;
    if (!found->is_boolean()) throw RequestError(std::string(name) + ": expected true or false");
    return found->get<bool>();
}

uint64_t numberIn(const Json& request, const char* name) {
    const Json& value = member(request, name);
    if (!value.is_number_unsigned())
        throw RequestError(std::string(name) + ": expected a whole number");
    return value.get<uint64_t>();
}

// How long a configuration waits for its confirmation at most.
constexpr uint64_t longestConfirmation = 86400;  // s

std::optional<std::chrono::seconds> confirmationIn(const Json& request) {
    if (!request.contains("confirm")) return {};
    const uint64_t seconds = numberIn(request, "confirm");
    if (seconds == 0 || seconds > longestConfirmation)
        throw RequestError("confirm: expected seconds from 1 to " +
                           std::to_string(longestConfirmation) + ", got " +
                           std::to_string(seconds));
    return std::chrono::seconds(seconds);
}

bool changesConfiguration(const std::string& op, const Json& request) {
    return op == "set" || op == "del" || op == "confirm" ||
           (op == "load" && !flag(request, "dryRun"));
}

// Whether only who may change anything may ask this. Comparing keys would let others guess them.
bool isReserved(const std::string& op, const Json& request) {
    return changesConfiguration(op, request) || op == "save" ||
           (op == "log" && request.contains("level")) ||
           ((op == "diff" || op == "load") && request.contains("forwarding"));
}

// For the log, the events and the history: `set "/cliConfig/udpPortConfig"`.
std::string describe(const std::string& op, const Json& request) {
    std::string text = op;
    if (const auto path = request.find("path"); path != request.end())
        text += " " + dumpLine(*path);
    for (const char* name : {"history", "confirm", "keep"})
        if (const auto found = request.find(name); found != request.end())
            text += std::string(" ") + name + " " + dumpLine(*found);
    return text;
}

Answer warned(std::vector<std::string> warnings) {
    Answer answer;
    answer.warnings = std::move(warnings);
    return answer;
}

}  // namespace

// The root reactor subscribed before the watches, so the container, and with it /navDb, has been
// created or deleted when the watches are notified.
Control::Control(Controlled agent)
    : agent_(std::move(agent)),
      watches_(agent_.tree),
      navConfigured_(Vel::Subscription::to<&Watches::rootChanged>(
          agent_.configuration.running().paths, Nav::NavCliConfig::navConfiguredAttr, &watches_)) {}

Answer Control::handle(const std::string& op, const Json& request, Session& session) {
    if (const auto report = agent_.reports.find(op); report != agent_.reports.end())
        return report->second(request);
    if (const auto report = agent_.longReports.find(op); report != agent_.longReports.end()) {
        Answer answer;
        answer.later = [make = report->second, request] { return make(request); };
        return answer;
    }
    if (!session.mayChange() && isReserved(op, request))
        throw RequestError(op + ": permission denied to " + session.author() +
                           "; only root and the agent's user may change anything, others may read");
    if (agent_.manual || !changesConfiguration(op, request)) return perform(op, request, session);
    const std::string text = describe(op, request);
    try {
        Answer answer = perform(op, request, session);
        DUOLOG(agentTrace, 5, "configuration: ", LongText{text}, " by ",
               LongText{session.author()});
        record(text, {}, session);
        return answer;
    } catch (const std::exception& error) {
        DUOLOG(agentTrace, 4, "configuration: ", LongText{text}, " by ", LongText{session.author()},
               " refused: ", LongText{error.what()});
        record(text + " refused", error.what(), session);
        throw;
    }
}

Answer Control::perform(const std::string& op, const Json& request, Session& session) {
    static const std::map<std::string, Answer (Control::*)(const Json&, Session&)> operations = {
        {"get", &Control::get},         {"set", &Control::set},
        {"del", &Control::del},         {"load", &Control::load},
        {"check", &Control::check},     {"save", &Control::save},
        {"diff", &Control::diff},       {"confirm", &Control::confirm},
        {"history", &Control::history}, {"show", &Control::show},
        {"watch", &Control::watch},     {"trace", &Control::trace},
        {"log", &Control::log},         {"ping", &Control::ping},
        {"events", &Control::events},   {"forwarding", &Control::forwarding}};
    const auto operation = operations.find(op);
    if (operation == operations.end()) throw RequestError("op: \"" + op + "\" not found");
    return (this->*operation->second)(request, session);
}

void Control::record(const std::string& text, const std::string& cause, const Session& session) {
    agent_.events.add({Event::Kind::configuration, "configuration", text, cause, session.author()});
}

Answer Control::get(const Json& request, Session&) {
    const std::string written = text(request, "path");
    if (written == "/") return agent_.tree.rootNames();
    const Path path = agent_.tree.parse(written);
    Json value = agent_.tree.get(path);
    // An attribute may have no value; an entry without a value does not exist.
    if (value.is_null() && path.hasKey() && !agent_.tree.hasAttribute(path))
        throw RequestError(written + ": not found");
    return value;
}

Answer Control::set(const Json& request, Session& session) {
    const Json& value = member(request, "value");
    return edit(request, session,
                [&](Tree& tree, const std::string& path) { tree.set(path, value); });
}

Answer Control::del(const Json& request, Session& session) {
    return edit(request, session, [](Tree& tree, const std::string& path) { tree.del(path); });
}

Answer Control::edit(const Json& request, const Session& session,
                     const std::function<void(Tree&, const std::string& path)>& make) {
    const std::string path = text(request, "path");
    const std::string& root = agent_.tree.parse(path).root->name;
    const bool configures =
        root == configName || (root == forwardingName && agent_.configuration.running().forwarding);
    if (agent_.manual || !configures) {
        make(agent_.tree, path);
        return {};
    }
    const Change change{describe(request.at("op"), request), session.author(), true};
    return warned(agent_.configuration.edit(change, [&](Tree& tree) { make(tree, path); }));
}

// An entry of the history, or configurations of which either may be left out.
WantedConfig Control::wantedBy(const Json& request) const {
    if (request.contains("history")) {
        if (request.contains("value") || request.contains("forwarding"))
            throw RequestError("history: cannot be combined with a configuration");
        return agent_.configuration.fromHistory(numberIn(request, "history"));
    }
    WantedConfig wanted;
    if (request.contains("forwarding")) wanted.forwarding = readForwarding(request["forwarding"]);
    if (request.contains("value") || !wanted.forwarding)
        wanted.paths = readConfig(member(request, "value"));
    return wanted;
}

Answer Control::load(const Json& request, Session& session) {
    const auto confirmation = confirmationIn(request);
    WantedConfig wanted = wantedBy(request);
    if (flag(request, "dryRun")) return foresee(std::move(wanted));
    const Change change{describe("load", request), session.author()};
    Configuration& configuration = agent_.configuration;
    return warned(confirmation ? configuration.loadUnconfirmed(change, wanted, *confirmation)
                               : configuration.load(change, wanted));
}

Answer Control::foresee(WantedConfig wanted) const {
    Answer answer;
    const auto transaction =
        std::make_shared<const Transaction>(agent_.configuration.running(), std::move(wanted));
    answer.warnings = agent_.configuration.check(*transaction);
    answer.later = agent_.foresee(transaction);
    return answer;
}

Answer Control::check(const Json& request, Session&) {
    const Transaction transaction(agent_.configuration.running(), wantedBy(request));
    return warned(agent_.configuration.check(transaction));
}

// From the running configuration to one of the request, of the history, or of the agent's files.
Answer Control::diff(const Json& request, Session&) {
    std::optional<WantedConfig> wanted;
    if (request.contains("value") || request.contains("forwarding") || request.contains("history"))
        wanted = wantedBy(request);
    else if (!(wanted = agent_.files()))
        throw RequestError("the agent was started without --config; FILE is required");
    return toJson(Transaction(agent_.configuration.running(), std::move(*wanted)).differences());
}

Answer Control::confirm(const Json& request, Session& session) {
    const bool keep = !request.contains("keep") || flag(request, "keep");
    keep ? agent_.configuration.confirm()
         : agent_.configuration.giveBack({describe("confirm", request), session.author()});
    return {};
}

Answer Control::history(const Json& request, Session&) {
    if (!request.contains("number")) return agent_.configuration.history();
    return agent_.configuration.history(numberIn(request, "number"));
}

// The one answer with secrets: what the owner's files need to hold.
Answer Control::save(const Json&, Session&) {
    const RunningConfig& running = agent_.configuration.running();
    return Json{{"value", wholeConfig(&running.paths)},
                {"forwarding", wholeConfig(running.forwarding)}};
}

Answer Control::show(const Json& request, Session&) {
    return Json(agent_.show(text(request, "command")));
}

Answer Control::forwarding(const Json&, Session&) {
    auto report = agent_.forwarding();
    if (!report) throw RequestError(notForwarding);
    return std::move(*report);
}

Answer Control::watch(const Json& request, Session& session) {
    const Path path = agent_.tree.parse(text(request, "path"));
    if (watches_.countOf(session) == maxWatches)
        throw RequestError("a client watches at most " + std::to_string(maxWatches) + " paths");
    session.startEvents();
    return watches_.add(path, session);
}

Answer Control::trace(const Json& request, Session&) {
    return Json(Ringlog::last(countIn(request, 100)));
}

Answer Control::log(const Json& request, Session&) {
    if (request.contains("facility")) {
        const std::string facility = text(request, "facility");
        const Json& level = member(request, "level");
        if (!level.is_number_unsigned() || level > 8)
            throw RequestError("level: a number from 0 to 8 is required");
        if (!Duolog::levelIs(facility, level.get<int>()))
            throw RequestError("facility: \"" + facility + "\" not found");
        DUOLOG(agentTrace, 5, "log level of ", facility, " set to ", level.get<int>());
    }
    Json levels = Json::object();
    for (const auto& [name, level] : Duolog::facilities()) levels[std::string(name)] = level;
    return levels;
}

// The newest events; all if the request does not say how many.
Answer Control::events(const Json& request, Session&) {
    return agent_.events.newest(countIn(request, Events::capacity));
}

Answer Control::ping(const Json&, Session&) {
    return Json{{"version", NAV_VERSION}, {"platform", agent_.platform}, {"pid", getpid()}};
}

}  // namespace Agent
