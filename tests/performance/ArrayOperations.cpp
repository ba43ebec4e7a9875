// The operations on tables, which grow by ten rows. One's own concern groups as well: when a
// segment is missing, those of one's groups are searched.

#include "endpointregistry/NamedStringArray.h"
#include "tests/performance/Operations.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cstdlib>

namespace performance {

namespace {

using agent::spf::endpointregistry::NamedStringArray;
namespace accounts = tests::accounts;
using Row = std::vector<std::string>;

const Row ownRow{"own", "value"};

std::string numbered(std::size_t number) {
    return "row " + std::to_string(100 + number);
}

/// A table that another process has filled.
NamedStringArray filledTable(std::size_t rows, const std::string& trustee) {
    NamedStringArray table("benchmark", 0, trustee);
    demand(tests::runInChild([&] {
               for (std::size_t i = 0; i < rows; ++i) {
                   table.insert({numbered(i), "value"});
               }
           }) == EXIT_SUCCESS,
           "the table was not filled");
    return table;
}

void insert(std::size_t rows, const std::string& trustee) {
    NamedStringArray table = filledTable(rows, trustee);
    measure([&] { table.erase(ownRow); }, [&] { table.insert(ownRow); });
}

void erase(std::size_t rows, const std::string& trustee) {
    NamedStringArray table = filledTable(rows, trustee);
    measure([&] { table.insert(ownRow); }, [&] { table.erase(ownRow); });
}

void filter(const std::string& trustee) {
    NamedStringArray table = filledTable(100, trustee);
    measure([&] { demand(table.filter({numbered(0)}).size() == 1, "filtered wrongly"); });
}

} // namespace

std::vector<Operation> arrayOperations() {
    return {
        {"arrayInsert/101", 0, true, [] { insert(101, ""); }},
        {"arrayInsertAndGrow/100", 0, true, [] { insert(100, ""); }},
        {"arrayErase/101", 0, true, [] { erase(101, ""); }},
        {"arrayEraseAndShrink/100", 0, true, [] { erase(100, ""); }},
        {"arrayFilter/100", 0, true, [] { filter(""); }},
        {"arrayInsertShared/101", 0, true, [] { insert(101, accounts::friends); }},
        {"arrayEraseShared/101", 0, true, [] { erase(101, accounts::friends); }},
        {"arrayFilterShared/100", 0, true, [] { filter(accounts::friends); }},
    };
}

} // namespace performance
