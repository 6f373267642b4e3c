// Tables for a terminal. The program: navctl_test.py.
#include <gtest/gtest.h>

#include <sstream>

#include "navctl/Show.h"

namespace {

using Agent::Json;

TEST(TableTest, AlignsByCharactersAndKeepsControlCharactersFromTheTerminal) {
    const Navctl::TextTable table{{"path group", "state", "sites"},
                                  {{"zürich", "Estab", 1}, {"a\x1b[2J\n", nullptr, Json::array()}}};
    std::ostringstream plain, coloured;
    Navctl::printTable(plain, table, {});
    EXPECT_EQ(plain.str(),
              "PATH GROUP  STATE  SITES\n"
              "zürich      Estab  1\n"
              "a?[2J?      -      -\n");
    Navctl::printTable(coloured, table, {.colours = true});
    EXPECT_NE(coloured.str().find("\x1b[32mEstab\x1b[0m  1\n"), std::string::npos);
}

std::string printed(const Navctl::TextTable& table, size_t width) {
    std::ostringstream out;
    Navctl::printTable(out, table, {.width = width});
    return out.str();
}

// In the order in which a narrow terminal asks for it.
TEST(TableTest, FitsTheTerminal) {
    const Navctl::TextTable table{
        {"path", "site (id)", "since", "cause", "reason"},
        {{"Path1", "a", "2020-01-02", nullptr, "l'hôte d'à côté ne répond pas"},
         {"Path2", "b", "2020-01-02", nullptr, "2001:db8:1234:5678::1"}},
        {"since", "site (id)"}};
    EXPECT_EQ(printed(table, 54),
              "PATH   SITE (id)  SINCE       REASON\n"
              "Path1  a          2020-01-02  l'hôte d'à côté ne\n"
              "                              répond pas\n"
              "Path2  b          2020-01-02  2001:db8:1234:5678::1\n");
    EXPECT_EQ(printed(table, 38),
              "PATH   SITE      REASON\n"
              "       (id)\n"
              "Path1  a         l'hôte d'à côté ne\n"
              "                 répond pas\n"
              "Path2  b         2001:db8:1234:5678::1\n");
    EXPECT_EQ(printed(table, 24),
              "PATH   REASON\n"
              "Path1  l'hôte d'à côté\n"
              "       ne répond pas\n"
              "Path2  2001:db8:1234:567\n"
              "       8::1\n");
}

}  // namespace
