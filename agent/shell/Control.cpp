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

// Either of the two may be left out.
WantedConfig wantedBy(const Json& request) {
    WantedConfig wanted;
    if (request.contains("forwarding")) wanted.forwarding = readForwarding(request["forwarding"]);
    if (request.contains("value") || !wanted.forwarding)
        wanted.paths = readConfig(member(request, "value"));
    return wanted;
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
          agent_.running.paths, Nav::NavCliConfig::navConfiguredAttr, &watches_)) {}

Answer Control::handle(const std::string& op, const Json& request, Session& session) {
    static const std::map<std::string, Answer (Control::*)(const Json&, Session&)> operations = {
        {"get", &Control::get},      {"set", &Control::set},
        {"del", &Control::del},      {"load", &Control::loadRequest},
        {"check", &Control::check},  {"save", &Control::save},
        {"show", &Control::show},    {"watch", &Control::watch},
        {"trace", &Control::trace},  {"log", &Control::log},
        {"ping", &Control::ping},    {"forwarding", &Control::forwarding},
        {"events", &Control::events}};
    if (const auto report = agent_.reports.find(op); report != agent_.reports.end())
        return report->second(request);
    static const std::set<std::string> changes = {"set", "del", "load", "save"};
    if (!session.mayChange() &&
        (changes.contains(op) || (op == "log" && request.contains("level"))))
        throw RequestError(op + ": permission denied to " + session.author() +
                           "; only root and the agent's user may change anything, others may read");
    const auto operation = operations.find(op);
    if (operation == operations.end()) throw RequestError("op: \"" + op + "\" not found");
    if (agent_.manual || (op != "set" && op != "del" && op != "load"))
        return (this->*operation->second)(request, session);
    const auto found = request.find("path");
    const std::string path = found != request.end() ? " " + dumpLine(*found) : "";
    try {
        Answer answer = (this->*operation->second)(request, session);
        DUOLOG(agentTrace, 5, "configuration: ", op, LongText{path}, " by ",
               LongText{session.author()});
        record(op + path, {}, session);
        return answer;
    } catch (const std::exception& error) {
        DUOLOG(agentTrace, 4, "configuration: ", op, LongText{path}, " by ",
               LongText{session.author()}, " refused: ", LongText{error.what()});
        record(op + path + " refused", error.what(), session);
        throw;
    }
}

void Control::record(const std::string& text, const std::string& cause, const Session& session) {
    if (agent_.events)
        agent_.events->add(
            {Event::Kind::configuration, "configuration", text, cause, session.author()});
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

Answer Control::set(const Json& request, Session&) {
    const std::string path = text(request, "path");
    const Json& value = member(request, "value");
    return change(path, [&](Tree& tree) { tree.set(path, value); });
}

Answer Control::del(const Json& request, Session&) {
    const std::string path = text(request, "path");
    return change(path, [&](Tree& tree) { tree.del(path); });
}

Answer Control::change(const std::string& path, const std::function<void(Tree&)>& make) {
    const std::string& root = agent_.tree.parse(path).root->name;
    const bool configures =
        root == configName || (root == forwardingName && agent_.running.forwarding);
    if (agent_.manual || !configures) {
        make(agent_.tree);
        return {};
    }
    Transaction transaction(agent_.running);
    make(transaction.tree());
    return warned(commit(transaction));
}

std::vector<std::string> Control::commit(Transaction& transaction) {
    std::vector<std::string> warnings = transaction.check(&agent_.interfaces);
    transaction.apply();
    agent_.configured();
    return warnings;
}

std::vector<std::string> Control::load(WantedConfig wanted) {
    Transaction transaction(agent_.running, std::move(wanted));
    return commit(transaction);
}

Answer Control::loadRequest(const Json& request, Session&) {
    return warned(load(wantedBy(request)));
}

Answer Control::check(const Json& request, Session&) {
    const Transaction transaction(agent_.running, wantedBy(request));
    return warned(transaction.check(&agent_.interfaces));
}

// The one answer with secrets: what the owner's files need to hold.
Answer Control::save(const Json&, Session&) {
    const auto whole = [](const Vel::Entity* config) {
        return config ? toJson(Vel::toDatum(*config), Secrets::shown) : Json();
    };
    return Json{{"value", whole(&agent_.running.paths)},
                {"forwarding", whole(agent_.running.forwarding)}};
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
    return agent_.events ? agent_.events->newest(countIn(request, Events::capacity))
                         : Json::array();
}

Answer Control::ping(const Json&, Session&) {
    return Json{{"version", NAV_VERSION}, {"platform", agent_.platform}, {"pid", getpid()}};
}

}  // namespace Agent
