#include "endpointregistry/Endpoint.h"

#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using agent::spf::endpointregistry::Endpoint;

namespace {

using Duplicate = Endpoint::DuplicateEndpointError;
using DataPair = std::pair<std::string, std::string>;

static_assert(std::is_same_v<Endpoint::DataPair, DataPair>);

static_assert(std::is_nothrow_default_constructible_v<Endpoint>);
static_assert(std::is_nothrow_destructible_v<Endpoint>);
static_assert(std::is_nothrow_move_constructible_v<Endpoint>);
// The log sink of an application may throw while it is told of the move.
static_assert(std::is_move_assignable_v<Endpoint> && !std::is_nothrow_move_assignable_v<Endpoint>);
static_assert(!std::is_copy_constructible_v<Endpoint> && !std::is_copy_assignable_v<Endpoint>);
static_assert(std::is_constructible_v<bool, const Endpoint&>);
static_assert(!std::is_convertible_v<Endpoint, bool>);
static_assert(noexcept(std::declval<Endpoint&>().reset()));

static_assert(std::is_constructible_v<Endpoint, const DataPair&, const std::string&>);
static_assert(
    std::is_constructible_v<Endpoint, const DataPair&, const std::string&, const std::string&>);
static_assert(!std::is_convertible_v<const DataPair&, Endpoint>);

static_assert(std::is_base_of_v<std::runtime_error, Duplicate>);
static_assert(std::is_default_constructible_v<Duplicate>);
static_assert(!std::is_convertible_v<std::string, Duplicate>);
static_assert(std::is_nothrow_copy_constructible_v<Duplicate>);

using String = const std::string&;
using Trustees = std::set<std::string>;
using Found = std::optional<DataPair>;
using AllFound = std::vector<DataPair>;

// Taken as pointers, so that their exact types are what is tested.
[[maybe_unused]] constexpr Found (*find)(String, String) = &Endpoint::find;
[[maybe_unused]] constexpr Found (*findIn)(String, String, Trustees) = &Endpoint::find;
[[maybe_unused]] constexpr Found (*findFromLocal)(String, String) = &Endpoint::findFromLocal;
[[maybe_unused]] constexpr Found (*findFromAllTrustees)(String,
                                                        String) = &Endpoint::findFromAllTrustees;
[[maybe_unused]] constexpr AllFound (*filter)(String) = &Endpoint::filter;
[[maybe_unused]] constexpr AllFound (*filterIn)(String, Trustees) = &Endpoint::filter;
[[maybe_unused]] constexpr AllFound (*filterFromLocal)(String) = &Endpoint::filterFromLocal;
[[maybe_unused]] constexpr AllFound (*filterFromAllTrustees)(String) =
    &Endpoint::filterFromAllTrustees;
[[maybe_unused]] constexpr AllFound (*filterWithWildcard)(String, Trustees) =
    &Endpoint::filterUsingEmptySpaceAsGroupTagWildcard;
[[maybe_unused]] constexpr AllFound (*list)() = &Endpoint::list;
[[maybe_unused]] constexpr AllFound (*listIn)(Trustees) = &Endpoint::list;
[[maybe_unused]] constexpr AllFound (*listFromLocal)() = &Endpoint::listFromLocal;
[[maybe_unused]] constexpr AllFound (*listFromAllTrustees)() = &Endpoint::listFromAllTrustees;
[[maybe_unused]] constexpr Endpoint (*publish)(String, String, String) = &Endpoint::publish;
[[maybe_unused]] constexpr Endpoint (*publishWithKey)(String, String, String,
                                                      String) = &Endpoint::publish;

} // namespace

TEST(DuplicateEndpointError, TellsThatTheEndpointExists) {
    EXPECT_STREQ(Duplicate().what(), "Endpoint already exists in registry");
}

TEST(DuplicateEndpointError, TellsTheDetailThatItIsGiven) {
    EXPECT_STREQ(Duplicate("the detail").what(), "Endpoint already exists in registry: the detail");
    EXPECT_STREQ(Duplicate("").what(), "Endpoint already exists in registry: ");
}
