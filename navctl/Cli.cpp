#include "navctl/Cli.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "agent/base/RunDir.h"
#include "agent/base/SaveFile.h"
#include "agent/model/Config.h"
#include "agent/model/IpsecConfig.h"
#include "client/ControlClient.h"
#include "navctl/Completion.h"
#include "navctl/Counters.h"
#include "navctl/Graph.h"
#include "navctl/Output.h"
#include "navctl/Reference.h"
#include "navctl/Show.h"

namespace Navctl {

namespace {

// A command line that is invalid, or names a file that cannot be used.
class BadUsage : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Names the first word that is not a command, option or argument; CLI11 reports only that a
// subcommand is required.
std::string reasonOf(const CLI::ParseError& error, const CLI::App& app) {
    const std::vector<std::string> unknown = app.remaining(true);
    if (unknown.empty()) return error.what();
    const char* kind = unknown.front().starts_with("-")      ? "option"
                       : error.get_name() == "RequiredError" ? "command"
                                                             : "argument";
    return std::string("unknown ") + kind + " \"" + unknown.front() + '"';
}

class Program {
  public:
    explicit Program(const Streams& streams) : streams_(streams), output_(streams) { build(); }
    ExitStatus run(std::vector<std::string> arguments);

  private:
    void build();
    void buildShow();
    void buildExplain();
    CLI::App* command(CLI::App& parent, const char* name, const std::string& description,
                      void (Program::*action)());
    CLI::App* view(CLI::App& parent, const std::string& name, const std::string& description,
                   std::function<void()> action);
    CLI::App* withWatch(CLI::App* command);

    std::string runDir() const { return runDir_.empty() ? Agent::clientRunDir() : runDir_; }
    ExitStatus fail(const std::string& reason, ExitStatus status);
    void execute(std::vector<std::string> arguments);
    void printWarnings(const Json& warnings);
    void showText(const TextView& view);
    void printTables(const Json& answer, const Headed& tables);
    void printRows(const Json& rows, const TextTable& table);
    void forwarding();
    void interfaces();
    void events();
    void explain();
    void validate();
    void quality();
    void counters();
    template <class Use>
    static auto readFile(const std::string& file, Use use);
    void checkFiles() const;
    void keepComments(const std::string& file) const;
    bool fromHistory() const { return number_ != 0; }

    void get();
    void set();
    void del();
    void change(const Json& request);
    void watch();
    Json wanted() const;
    void load();
    void dryRun(Client::ControlClient& client, Json request);
    void check();
    void diff();
    void confirm();
    void history();
    void printChanges(const Json& changes);
    void save();
    void trace();
    void log();
    void ping();
    void batch();
    void completion() { output_.text() << (shell_ == "zsh" ? zshScript : bashScript); }
    void printReference() { output_.text() << reference(); }
    void completeWords();

    CLI::App app_{"Operates the path-selection agent of this router", "navctl"};
    Streams streams_;
    Output output_;
    std::string title_;  // the command line
    std::string runDir_, path_, value_, file_, forwarding_, ipsec_, shell_, facility_, level_,
        site_, application_;
    std::vector<std::string> words_;
    unsigned last_ = 100, number_ = 0, seconds_ = 0;
    bool raw_ = false, graph_ = false, dryRun_ = false, refuse_ = false, force_ = false;
};

CLI::App* Program::command(CLI::App& parent, const char* name, const std::string& description,
                           void (Program::*action)()) {
    CLI::App* added = parent.add_subcommand(name, description);
    if (action != nullptr) added->callback([this, action] { (this->*action)(); });
    return added;
}

void Program::build() {
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.set_version_flag("--version", NAV_VERSION);
    app_.add_option("--run-dir", runDir_, "The agent's run directory")->type_name("DIR");
    app_.add_flag("--json", output_.json, "Print JSON");
    app_.footer(
        "Exit status: 0 done, 1 refused, or the output could not be written, 2 bad usage,\n"
        "3 no agent, 4 permission denied.");
    buildShow();
    buildExplain();
    command(app_, "validate", "Check the agent's state against its inputs and the kernel",
            &Program::validate);

    for (auto* each : {command(app_, "get", "Print the value at a path", &Program::get),
                       command(app_, "set", "Assign a value to a path", &Program::set),
                       command(app_, "del", "Delete the entry or member at a path", &Program::del),
                       command(app_, "watch", "Print a path's value, then each change below it",
                               &Program::watch)}) {
        each->add_option("PATH", path_, "Such as /cliConfig/pathGroupConfig[internet]")->required();
    }
    app_.get_subcommand("set")
        ->add_option("VALUE", value_, "JSON; any other text is a string")
        ->required();
    for (auto* each :
         {command(app_, "load", "Make a file the configuration", &Program::load),
          command(app_, "check", "Say whether a file would be accepted", &Program::check),
          command(app_, "diff", "Compare the running configuration with a file, or the agent's own",
                  &Program::diff),
          command(app_, "save", "Write the configuration to a file", &Program::save)}) {
        each->add_option("FILE", file_, "- for standard input or output");
        each->add_option("--forwarding", forwarding_,
                         "The same with the configuration of forwarding; - prints no keys")
            ->type_name("FILE");
    }
    app_.get_subcommand("check")
        ->add_option("--ipsec", ipsec_, "The same with the IPsec profiles")
        ->type_name("FILE");
    for (const char* name : {"load", "diff"})
        app_.get_subcommand(name)
            ->add_option("--from-history", number_, "An entry of show history instead of files")
            ->type_name("N");
    CLI::App* load = app_.get_subcommand("load");
    load->add_flag("--dry-run", dryRun_, "Print what would change, and change nothing");
    load->add_option("--confirm", seconds_,
                     "Return to the present configuration without a navctl confirm in time")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));
    app_.get_subcommand("save")->add_flag("--force", force_,
                                          "Overwrite a file with comments, which are lost");
    command(app_, "confirm", "Keep the configuration that waits for it", &Program::confirm)
        ->add_flag("--no", refuse_, "Return to the one before at once");
    command(app_, "batch", "Send requests, one JSON object a line", &Program::batch)
        ->add_option("FILE", file_, "- for standard input")
        ->required();
    command(app_, "trace", "Print the newest records of the trace", &Program::trace)
        ->add_option("--last", last_, "How many, 100 unless given")
        ->type_name("N");
    CLI::App* log = command(app_, "log", "Print or set the log levels, from 0 to 8", &Program::log);
    log->add_option("FACILITY", facility_, "* for all");
    log->add_option("LEVEL", level_)->check(CLI::Range(0, 8));
    command(app_, "reference", "Print all attributes of the configuration, as Markdown",
            &Program::printReference);
    command(app_, "ping", "Print which agent is running", &Program::ping);
    command(app_, "completion", "Print the script for shell completion", &Program::completion)
        ->add_option("SHELL", shell_, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
    CLI::App* words = command(app_, "__complete", "", &Program::completeWords);
    words->group("");
    words->add_option("WORD", words_);
}

// A command that prints state, and can repeat itself.
CLI::App* Program::view(CLI::App& parent, const std::string& name, const std::string& description,
                        std::function<void()> action) {
    CLI::App* added = withWatch(parent.add_subcommand(name, description));
    added->callback([this, action = std::move(action)] { output_.repeat(title_, action); });
    return added;
}

CLI::App* Program::withWatch(CLI::App* command) {
    command->add_flag("--watch", output_.watch,
                      "Again every second, on a terminal in place with changes marked");
    return command;
}

void Program::buildShow() {
    CLI::App* show = command(app_, "show", "Print state as a table", nullptr);
    show->require_subcommand(1);
    for (const TextView& each : textViews())
        view(*show, each.name, each.description, [this, &each] {
            showText(each);
        })->add_flag("--raw", raw_, "Print the agent's text unchanged");
    for (const TreeView& each : treeViews())
        view(*show, each.name, each.description, [this, &each] {
            Client::ControlClient client(runDir());
            output_.table(each.table(client));
        });
    view(*show, "forwarding", "What the kernel forwards, and what it refused",
         [this] { forwarding(); });
    view(*show, "interfaces", "Interfaces of the router and of the configuration",
         [this] { interfaces(); });
    view(*show, "events", "The last changes, with their causes and authors", [this] { events(); })
        ->add_option("--last", last_, "How many, 100 unless given")
        ->type_name("N");
    view(*show, "history", "The last configurations, with their authors", [this] {
        history();
    })->add_option("N", number_, "What this entry changed");
    CLI::App* quality =
        view(*show, "quality", "What is measured of the paths", [this] { this->quality(); });
    quality->add_option("NAME", path_, "Only this path, such as Path3");
    quality->add_flag("--graph", graph_, "The last minutes of that path");
    command(*show, "counters", "Traffic per load-balance id and path", &Program::counters)
        ->add_flag("--watch", output_.watch, "Again for each update of the counters");
}

void Program::buildExplain() {
    CLI::App* about =
        view(app_, "explain", "Say why paths are down, and applications where they are",
             [this] { explain(); });
    const auto aspect = [this, about](const char* name, const char* description) {
        return withWatch(about->add_subcommand(name, description));
    };
    aspect("path", "One path, or those of an interface or an address")
        ->add_option("NAME", path_, "Such as Path3, wan1 or 198.51.100.2")
        ->required();
    aspect("site", "The paths and applications of a site")
        ->add_option("SITE", site_, "Its address")
        ->required();
    aspect("application", "An application in every VRF, to every site")
        ->add_option("APPLICATION", application_, "Such as voice, or default")
        ->required();
    about->require_subcommand(0, 1);
}

void Program::printTables(const Json& answer, const Headed& tables) {
    if (output_.json) return output_.document(answer);
    if (tables.empty()) output_.table({});
    const char* separator = "";
    for (const auto& [heading, table] : tables) {
        output_.text() << std::exchange(separator, "\n");
        output_.table(table, heading);
    }
}

// Rows as the agent gives them, or the table made of them.
void Program::printRows(const Json& rows, const TextTable& table) {
    output_.json ? output_.document(rows) : output_.table(table);
}

void Program::forwarding() {
    const Json report = Client::ControlClient(runDir()).request({{"op", "forwarding"}}).at("value");
    printTables(report, forwardingTables(report));
}

void Program::interfaces() {
    const Json rows = Client::ControlClient(runDir()).request({{"op", "interfaces"}}).at("value");
    printRows(rows, rowTable(rows));
}

// In place, the newest is at the top, since lines at the end may not fit.
void Program::events() {
    Json rows =
        Client::ControlClient(runDir()).request({{"op", "events"}, {"last", last_}}).at("value");
    if (output_.inPlace()) std::ranges::reverse(rows);
    rows = withUsers(rows);
    printRows(rows, rowTable(rows));
}

void Program::explain() {
    Json request = {{"op", "explain"}};
    for (const auto& [name, text] : {std::pair("path", path_), std::pair("site", site_),
                                     std::pair("application", application_)})
        if (!text.empty()) request[name] = text;
    const Json answer = Client::ControlClient(runDir()).request(request).at("value");
    printTables(answer, explainTables(answer));
}

void Program::quality() {
    if (graph_ && path_.empty()) throw BadUsage("--graph requires NAME");
    Client::ControlClient client(runDir());
    const Json rows = client.request({{"op", "quality"}}).at("value");
    Json chosen = Json::array();
    for (const Json& row : rows)
        if (path_.empty() || row.at("path") == path_) chosen.push_back(row);
    if (!path_.empty() && chosen.empty()) throw Client::Refused(path_ + ": not found");
    if (!graph_) return printRows(chosen, qualityTable(chosen));

    const Json history = client.request({{"op", "quality"}, {"path", path_}}).at("value");
    if (output_.json) return output_.document(history);
    output_.table(qualityTable(chosen));
    const double seconds = history.at("stepMs").get<double>() / 1000;
    const size_t columns = Terminal::now().columns;
    const size_t width = columns > 40 ? columns : 80;
    for (const auto& [name, heading] : {std::pair("rttMs", "round trip, ms"),
                                        {"jitterMs", "jitter, ms"},
                                        {"lossForward", "loss forward, %"},
                                        {"lossBackward", "loss backward, %"}})
        output_.text() << "\n" << graph(heading, history.at(name), seconds, width - 12);
}

// The differences are printed, and make the command fail. A change that the agent is about to
// follow is a difference, too, so those count that a second look finds again.
namespace {

std::string counted(size_t differences) {
    return std::to_string(differences) + (differences == 1 ? " difference" : " differences");
}

}  // namespace

void Program::validate() {
    Client::ControlClient client(runDir());
    const auto look = [&client] { return client.request({{"op", "validate"}}).at("value"); };
    Json differences = look();
    if (!differences.empty()) {
        sleep(1);
        const Json second = look();
        const auto gone = [&second](const Json& each) {
            return std::ranges::find(second, each) == second.end();
        };
        differences.erase(std::remove_if(differences.begin(), differences.end(), gone),
                          differences.end());
    }
    if (output_.json)
        output_.document({{"passed", differences.empty()}, {"differences", differences}});
    for (const Json& each : differences)
        if (!output_.json) output_.text() << each.get<std::string>() << "\n";
    if (!output_.json && differences.empty()) output_.text() << "PASS\n";
    if (!differences.empty()) throw Client::Refused(counted(differences.size()));
}

void Program::counters() {
    output_.repeatItself(title_, [this] {
        showCounters(runDir(), output_.watch, [this](const TextTable& table) {
            output_.table(table);
            output_.endFrame();
        });
    });
}

void Program::printWarnings(const Json& warnings) {
    for (const Json& warning : warnings) {
        if (output_.json)
            streams_.err << Agent::dumpLine({{"warning", warning}}) << "\n";
        else
            streams_.err << "warning: " << warning.get<std::string>() << "\n";
    }
}

void Program::showText(const TextView& view) {
    const std::string text = Client::showText(runDir(), view.word);
    if (raw_) {
        output_.text() << text;
        return;
    }
    const Json answer = parseShowText(text);
    output_.json ? output_.value(answer) : output_.table(view.table(answer));
}

void Program::get() {
    output_.value(Client::ControlClient(runDir()).get(path_));
}

void Program::set() {
    Json value = value_;
    try {
        value = Agent::parseJson(value_);
    } catch (const Agent::JsonError&) {
        // A bare word is a string.
    }
    change({{"op", "set"}, {"path", path_}, {"value", value}});
}

void Program::del() {
    change({{"op", "del"}, {"path", path_}});
}

void Program::change(const Json& request) {
    const Json answer = Client::ControlClient(runDir()).request(request);
    printWarnings(answer.value("warnings", Json::array()));
}

void Program::watch() {
    // An operator ends a watch by interrupting it; every complete line has been written then.
    std::signal(SIGINT, [](int) { _exit(done); });
    Client::ControlClient client(runDir());
    const Json answer = client.request({{"op", "watch"}, {"path", path_}});
    output_.line(Agent::dumpLine(answer.at("value")));
    client.connection().patienceIs(0);
    while (const auto line = client.connection().readLine()) {
        output_.line(*line);
        if (Agent::parseJson(*line).value("event", "") == "overrun") {
            throw Client::Refused("the agent ended the watch because this program did not keep up");
        }
    }
    throw Client::NoAgent("the agent stopped, or closed the connection");
}

// What `use` makes of a file's text; a file that cannot be read is a fault of the command line.
template <class Use>
auto Program::readFile(const std::string& file, Use use) {
    std::string text;
    try {
        text = Agent::readFile(file);
    } catch (const Agent::JsonError& error) {
        throw BadUsage(file + ": " + error.what());
    }
    try {
        return use(text);
    } catch (const Agent::JsonError& error) {
        throw Client::Refused(file + ": " + error.what());
    }
}

void Program::checkFiles() const {
    if (file_.empty() && forwarding_.empty()) throw BadUsage("FILE or --forwarding is required");
    if (file_ == "-" && forwarding_ == "-") throw BadUsage("only one of the two files can be -");
}

// The configurations of the command line as members of a request. Files are validated here first,
// where their lines are known.
Json Program::wanted() const {
    if (fromHistory() && (!file_.empty() || !forwarding_.empty()))
        throw BadUsage("--from-history cannot be combined with files");
    if (fromHistory()) return {{"history", number_}};
    Json request = Json::object();
    const auto add = [&request](const char* member, const std::string& file, auto validate) {
        if (file.empty()) return;
        request[member] = readFile(file, [&validate](const std::string& text) {
            validate(text);
            return Agent::parseJson(text, Agent::Comments::ignored);
        });
    };
    add("value", file_, Agent::readConfigText);
    add("forwarding", forwarding_, Agent::readForwardingText);
    return request;
}

// The agent, which also knows the running configuration, is asked for warnings before anything
// changes.
void Program::load() {
    if (!fromHistory()) checkFiles();
    Json request = wanted();
    Client::ControlClient client(runDir());
    if (dryRun_) return dryRun(client, std::move(request));
    request["op"] = "check";
    printWarnings(client.request(request).value("warnings", Json::array()));
    request["op"] = "load";
    if (seconds_ != 0) request["confirm"] = seconds_;
    client.request(request);
    if (seconds_ != 0 && !output_.json)
        output_.text()
            << "navctl confirm keeps the configuration; without it the agent returns to the "
               "one before in "
            << seconds_ << " s\n";
}

void Program::dryRun(Client::ControlClient& client, Json request) {
    request["op"] = "load";
    request["dryRun"] = true;
    const Json answer = client.request(request);
    printWarnings(answer.value("warnings", Json::array()));
    const Json& change = answer.at("value");
    if (output_.json) return output_.document(change);
    printChanges(change.at("configuration"));
    for (const char* kind : {"paths", "traffic"})
        if (!change.at(kind).empty()) {
            output_.text() << "\n" << kind << "\n";
            output_.table(rowTable(change.at(kind)));
        }
}

// Differences make the command fail, as those of diff(1) do.
void Program::diff() {
    if (file_ == "-" && forwarding_ == "-") throw BadUsage("only one of the two files can be -");
    Json request = wanted();
    request["op"] = "diff";
    const Json changes = Client::ControlClient(runDir()).request(request).at("value");
    output_.json ? output_.document(changes) : printChanges(changes);
    if (!changes.empty()) throw Client::Refused(counted(changes.size()));
}

void Program::confirm() {
    Client::ControlClient(runDir()).request({{"op", "confirm"}, {"keep", !refuse_}});
}

void Program::history() {
    Client::ControlClient client(runDir());
    if (!fromHistory()) {
        const Json rows = withUsers(client.request({{"op", "history"}}).at("value"));
        return printRows(rows, rowTable(rows));
    }
    const Json row = client.request({{"op", "history"}, {"number", number_}}).at("value");
    output_.json ? output_.document(row) : printChanges(row.at("changes"));
}

// A line with a minus for what is removed, with a plus for what is added.
void Program::printChanges(const Json& changes) {
    for (const Json& change : changes)
        for (const auto& [name, sign, colour] :
             {std::tuple("before", "- ", "\x1b[31m"), {"after", "+ ", "\x1b[32m"}}) {
            const Json& value = change.at(name);
            if (value.is_null()) continue;
            output_.text() << (output_.colours() ? colour : "") << sign
                           << change.at("path").get<std::string>() << " " << Agent::dumpLine(value)
                           << (output_.colours() ? "\x1b[0m" : "") << "\n";
        }
}

void Program::check() {
    if (ipsec_.empty()) checkFiles();
    Agent::ConfigPtr config;
    if (!file_.empty()) {
        config = readFile(file_, Agent::readConfigText);
        printWarnings(Agent::configWarnings(*config));
    }
    if (!forwarding_.empty()) {
        const auto forwarding = readFile(forwarding_, Agent::readForwardingText);
        if (config) printWarnings(Agent::forwardingWarnings(*config, *forwarding));
    }
    if (!ipsec_.empty()) {
        const auto read = [this](const std::string&) { return Agent::readIpsecFile(ipsec_); };
        const auto ipsec = readFile(ipsec_, read);
        if (config) printWarnings(Agent::ipsecWarnings(*config, *ipsec));
    }
}

// Refuses to overwrite a file with comments, which only their author can write again.
void Program::keepComments(const std::string& file) const {
    if (force_ || file.empty() || !std::filesystem::is_regular_file(file)) return;
    const std::string text = readFile(file, [](const std::string& content) { return content; });
    const auto isJson = [&text](Agent::Comments comments) {
        try {
            Agent::parseJson(text, comments);
            return true;
        } catch (const Agent::JsonError&) {
            return false;
        }
    };
    if (!isJson(Agent::Comments::refused) && isJson(Agent::Comments::ignored))
        throw Client::Refused(
            file +
            ": it has comments, which would be lost; \"navctl diff\" shows what to "
            "change in it, --force overwrites it");
}

// Keys are written into a file of the owner's alone, and nowhere else.
void Program::save() {
    checkFiles();
    keepComments(file_);
    keepComments(forwarding_);
    Client::ControlClient client(runDir());
    const auto write = [this](const std::string& file, const Json& config, Agent::SaveMode mode) {
        const std::string text = config.dump(2) + "\n";
        file == "-" ? void(output_.text() << text) : Agent::saveFile(file, text, mode);
    };
    if (!forwarding_.empty()) {
        const Json forwarding = forwarding_ == "-"
                                    ? client.get("/forwardingConfig")
                                    : client.request({{"op", "save"}}).at("value").at("forwarding");
        if (forwarding.is_null()) throw Client::Refused(Agent::notForwarding);
        write(forwarding_, forwarding, Agent::SaveMode::ownerOnly);
    }
    if (!file_.empty()) write(file_, client.get("/cliConfig"), Agent::SaveMode::asBefore);
}

void Program::trace() {
    const Json answer = Client::ControlClient(runDir()).request({{"op", "trace"}, {"last", last_}});
    const Json& lines = answer.at("value");
    if (output_.json) return output_.value(lines);
    for (const Json& line : lines) output_.text() << line.get<std::string>() << "\n";
}

void Program::log() {
    Json request = {{"op", "log"}};
    if (!level_.empty()) request.update({{"facility", facility_}, {"level", std::stoi(level_)}});
    const Json levels = Client::ControlClient(runDir()).request(request).at("value");
    TextTable table{{"facility", "level"}, {}};
    for (const auto& [name, level] : levels.items())
        if (facility_.empty() || facility_ == "*" || facility_ == name)
            table.rows.push_back({name, level});
    if (table.rows.empty()) throw Client::Refused("facility \"" + facility_ + "\" not found");
    output_.table(table);
}

void Program::ping() {
    const Json answer = Client::ControlClient(runDir()).request({{"op", "ping"}});
    const Json& value = answer.at("value");
    if (output_.json) return output_.document(value);
    output_.text() << "nav-agent " << value.value("version", "?") << ", platform "
                   << value.value("platform", "?") << ", pid " << value.value("pid", 0) << "\n";
}

// A request is sent when the one before has been answered, so that a script can choose its next
// request by the answers that it reads.
void Program::batch() {
    std::ifstream file;
    if (file_ != "-") file.open(file_);
    if (file_ != "-" && !file) throw BadUsage(file_ + ": " + std::strerror(errno));
    std::istream& in = file_ == "-" ? streams_.in : file;
    Client::Connection connection(runDir(), Agent::controlSocketName);
    size_t refusals = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find_first_not_of(" \t\r") == line.npos) continue;
        connection.sendLine(line);
        for (bool answered = false; !answered;) {
            const auto answer = connection.readLine();
            if (!answer) throw Client::NoAgent("the agent closed the connection");
            output_.line(*answer);
            // The events of a watch in an earlier line come between the answers.
            const Json value = Agent::parseJson(*answer);
            answered = value.contains("ok");
            refusals += answered && value.at("ok") != true;
        }
    }
    if (refusals > 0) throw Client::Refused(std::to_string(refusals) + " of the requests refused");
}

void Program::completeWords() {
    try {
        for (const std::string& word : complete(app_, words_, runDir())) {
            output_.text() << word << "\n";
        }
    } catch (const std::exception&) {
        // A shell that completes wants words or nothing.
    }
}

ExitStatus Program::fail(const std::string& reason, ExitStatus status) {
    output_.finish();
    if (output_.json)
        streams_.err << Agent::dumpLine({{"ok", false}, {"error", reason}}) << "\n";
    else
        streams_.err << "navctl: " << reason << "\n";
    return status;
}

void Program::execute(std::vector<std::string> arguments) {
    try {
        app_.parse(std::move(arguments));
    } catch (const CLI::Success& request) {  // --help or --version
        app_.exit(request, output_.text(), streams_.err);
    } catch (const CLI::ParseError& error) {
        throw BadUsage(reasonOf(error, app_) + (output_.json ? "" : "; see navctl --help"));
    }
    output_.flush();
}

ExitStatus Program::run(std::vector<std::string> arguments) {
    // Also for the errors of a command line that cannot be parsed.
    output_.json = std::ranges::count(arguments, "--json") > 0;
    title_ = "navctl";
    for (const std::string& each : arguments) title_ += " " + each;
    std::ranges::reverse(arguments);
    try {
        execute(std::move(arguments));
        return done;
    } catch (const Client::NoAgent& error) {
        return fail(error.what(), noAgent);
    } catch (const Client::NoPermission& error) {
        return fail(error.what(), noPermission);
    } catch (const BadUsage& error) {
        return fail(error.what(), badUsage);
    } catch (const Agent::RunDirError& error) {
        return fail(error.what(), badUsage);
    } catch (const std::system_error& error) {  // of a file
        return fail(error.what(), badUsage);
    } catch (const std::exception& error) {
        return fail(error.what(), refused);
    }
}

}  // namespace

ExitStatus run(std::vector<std::string> arguments, Streams streams) {
    return Program(streams).run(std::move(arguments));
}

}  // namespace Navctl
