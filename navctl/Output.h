// What a command prints: tables or JSON, once or, with --watch, every second: in place on a
// terminal, where the changes since the last time are marked, else one after the other.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "navctl/Cli.h"
#include "navctl/Screen.h"
#include "navctl/TextTable.h"

namespace Navctl {

// The version of all JSON documents, which docs/navctl.schema.json describes. A new member leaves
// it as it is; it is raised when a member goes or has another meaning.
inline constexpr int schemaVersion = 1;

class Output {
  public:
    explicit Output(const Streams& streams) : streams_(streams) {}
    ~Output() { finish(); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Options of the command line.
    bool json = false, watch = false;

    std::ostream& text() { return streams_.out; }
    bool colours() const { return streams_.colours; }
    // Whether what is printed replaces what was printed the last time.
    bool inPlace() const { return watch && !json && streams_.terminal; }

    // A line that a reader is to have at once.
    void line(const std::string& line);
    // JSON as it is.
    void value(const Json& value);
    // JSON with its schema version: a member of an object, or of each object in an array, so that
    // an array stays one.
    void document(const Json& value);
    // A table or, with --json, its document. A table made of no rows has no columns: "none".
    void table(const TextTable& table, const std::string& heading = {});

    // Performs an action which prints; with --watch every second until it fails.
    void repeat(const std::string& title, const std::function<void()>& action);
    // The same for an action that repeats itself, and ends each time with endFrame().
    void repeatItself(const std::string& title, const std::function<void()>& action);
    void endFrame();

    // Throws if standard output is full, or closed by its reader.
    void flush();
    // Gives the terminal back.
    void finish();

  private:
    using Tables = std::map<std::string, TextTable>;  // by heading

    Streams streams_;
    std::string title_;
    // While it prints in place:
    std::optional<Screen> screen_;
    std::optional<std::ostream> terminal_;
    std::ostringstream frame_;
    bool isFirst_ = true;
    Tables before_, now_;
};

}  // namespace Navctl
