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

using Names = std::set<std::string>;

// Name to columns; the heading is left out.
std::map<std::string, std::vector<std::string>> ReadTable(const char *path) {
    std::map<std::string, std::vector<std::string>> rows;
    std::ifstream file(path);
    std::string line;
    for (std::getline(file, line); std::getline(file, line);) {
        std::istringstream columns(line);
        std::vector<std::string> row;
        for (std::string column; std::getline(columns, column, '\t');) row.push_back(column);
        if (!row.empty()) rows[row[0]] = row;
    }
    return rows;
}

// Version node to the names that the library defines under it.
std::map<std::string, Names> ReadSymbols() {
    std::map<std::string, Names> nodes;
    const std::string command = std::string(ZVX_NM) + " -D --defined-only --with-symbol-versions '" ZVX_LIBRARY "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return nodes;
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::istringstream words(line);
        std::string address, kind, symbol;
        words >> address >> kind >> symbol;
        const size_t at = symbol.find('@');
        if (kind == "A") continue;  // the nodes themselves
        EXPECT_TRUE(kind == "T" || symbol.find("ZVXKVT_PRIVATE") != symbol.npos) << symbol << " is no function";
        // Two signs mark the default version; a name with one would be unreachable for the linker.
        const bool isDefault = at != std::string::npos && symbol.compare(at, 2, "@@") == 0;
        const std::string node = at == std::string::npos ? "" : isDefault ? symbol.substr(at + 2) : symbol.substr(at);
        nodes[node].insert(symbol.substr(0, at));
    }
    pclose(pipe);
    return nodes;
}

}  // namespace

TEST(Exports, TheTableCoversAllNamesAndNoOthers) {
    const auto all = ReadTable(ZVX_ALL_NAMES);
    const auto table = ReadTable(ZVX_TABLE);
    EXPECT_EQ(all.size(), 118u);
    ASSERT_EQ(table.size(), all.size());
    for (const auto &[name, row] : all) {
        ASSERT_TRUE(table.count(name) == 1 && table.at(name).size() == 3) << name;
        EXPECT_EQ(table.at(name)[1], row[1]) << name;
        EXPECT_EQ(table.at(name)[2], "exported") << name;
    }
}

TEST(Exports, TheLibraryDefinesWhatTheTableSays) {
    Names expected;
    for (const auto &[name, row] : ReadTable(ZVX_TABLE)) expected.insert(name);
    const auto nodes = ReadSymbols();
    ASSERT_EQ(nodes.count("ZVXKVT_3.1"), 1u) << "no symbols could be read";
    const Names &exported = nodes.at("ZVXKVT_3.1");
    for (const std::string &name : expected) EXPECT_EQ(exported.count(name), 1u) << name << " is not in the library";
    for (const std::string &name : exported) EXPECT_EQ(expected.count(name), 1u) << name << " is not in the table";
    for (const auto &[node, names] : nodes) {
        EXPECT_TRUE(node == "ZVXKVT_3.1" || node == "ZVXKVT_OS" || node == "ZVXKVT_PRIVATE")
            << node << ' ' << *names.begin();
        if (node == "ZVXKVT_3.1") continue;
        // A name of the library's own must not slip out under another node.
        for (const std::string &name : names) EXPECT_EQ(expected.count(name), 0u) << name;
    }
    for (const std::string &name : nodes.at("ZVXKVT_PRIVATE"))
        EXPECT_TRUE(name.substr(0, 3) == "Zvx" || name.substr(0, 4) == "zvx_") << name;
}
