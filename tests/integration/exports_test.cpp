// tests/integration/exports_test.cpp - the symbols of the built library against the tables.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Name to columns; the heading is left out.
std::map<std::string, std::vector<std::string>> ReadTable(const char *path) {
    std::map<std::string, std::vector<std::string>> rows;
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream columns(line);
        std::vector<std::string> row;
        for (std::string column; std::getline(columns, column, '\t');) row.push_back(column);
        if (!row.empty()) rows[row[0]] = row;
    }
    return rows;
}

// Version node to the names that the library defines under it; "" for names without a version.
std::map<std::string, std::set<std::string>> ReadSymbols() {
    std::map<std::string, std::set<std::string>> nodes;
    const std::string command = std::string(ZVX_NM) + " -D --defined-only --with-symbol-versions '" ZVX_LIBRARY "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return nodes;
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::istringstream words(line);
        std::string address, kind, symbol;
        words >> address >> kind >> symbol;
        const size_t at = symbol.find('@');
        // The nodes themselves appear as absolute symbols.
        if (kind == "A") continue;
        // Two signs mark the default version; a name with one would be unreachable for the linker.
        const bool isDefault = at != std::string::npos && symbol.compare(at, 2, "@@") == 0;
        const std::string node = at == std::string::npos ? "" : isDefault ? symbol.substr(at + 2) : symbol.substr(at);
        nodes[node].insert(symbol.substr(0, at));
    }
    pclose(pipe);
    return nodes;
}

std::set<std::string> Difference(const std::set<std::string> &a, const std::set<std::string> &b) {
    std::set<std::string> rest;
    for (const std::string &name : a) {
        if (b.count(name) == 0) rest.insert(name);
    }
    return rest;
}

using Names = std::set<std::string>;

}  // namespace

TEST(Exports, TheTableCoversAllNamesAndNoOthers) {
    const auto all = ReadTable(ZVX_ALL_NAMES);
    const auto table = ReadTable(ZVX_TABLE);
    EXPECT_EQ(all.size(), 118u);
    ASSERT_EQ(table.size(), all.size());
    for (const auto &[name, row] : all) {
        ASSERT_EQ(table.count(name), 1u) << name;
        const auto &here = table.at(name);
        ASSERT_EQ(here.size(), 3u) << name;
        EXPECT_EQ(here[1], row[1]) << name;
        EXPECT_TRUE(here[2] == "exported" || here[2] == "later") << name;
    }
}

TEST(Exports, TheLibraryDefinesWhatTheTableSays) {
    Names expected, later;
    for (const auto &[name, row] : ReadTable(ZVX_TABLE)) (row[2] == "exported" ? expected : later).insert(name);
    const auto nodes = ReadSymbols();
    ASSERT_EQ(nodes.count("ZVXKVT_3.1"), 1u) << "no symbols could be read";
    const Names &exported = nodes.at("ZVXKVT_3.1");
    EXPECT_EQ(Difference(expected, exported), Names{}) << "in the table, not in the library";
    EXPECT_EQ(Difference(exported, expected), Names{}) << "in the library, not in the table";
    for (const auto &[node, names] : nodes) {
        EXPECT_TRUE(node == "ZVXKVT_3.1" || node == "ZVXKVT_OS" || node == "ZVXKVT_PRIVATE")
            << node << ' ' << *names.begin();
        if (node == "ZVXKVT_3.1") continue;
        // A name of the library's own must not slip out under another node.
        for (const std::string &name : names) EXPECT_EQ(expected.count(name) + later.count(name), 0u) << name;
    }
    for (const std::string &name : nodes.at("ZVXKVT_PRIVATE"))
        EXPECT_EQ(name.substr(0, 3) == "Zvx" || name.substr(0, 4) == "zvx_", true) << name;
}
