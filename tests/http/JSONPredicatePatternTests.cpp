#include "http/JSONPredicatePattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace orvel::http {
namespace {

using ::testing::StartsWith;
using ::testing::ThrowsMessage;

constexpr char person[] = R"({"name": "Zoë", "age": 42, "big": 18446744073709551615, "ratio": 0.5, "ok": true,
    "nothing": null, "tags": ["a", "b"], "items": [{"price": 5, "sku": "x1"}, {"price": 12, "sku": "y2"}],
    "nested": {"city": "Paris"}})";

TEST(JSONPredicatePattern, EvaluatesEachOperatorAgainstTheDecodedBody) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"age == 42", person, true}, {"age = 42.0", person, true}, {"age != 41", person, true},
        {"age <> 42", person, false}, {"age < 43", person, true}, {"age <= 42", person, true},
        {"age > 42", person, false}, {"age >= 42", person, true}, {"age =< 41", person, false},
        {"big > 9223372036854775807", person, true}, {"ratio < 1", person, true}, {"age == '42'", person, false},
        {"name == 'Zoë'", person, true}, {"name == 'zoe'", person, false}, {"name ==[c] 'ZOË'", person, true},
        {"name ==[cd] 'zoe'", person, true}, {"name BEGINSWITH 'Zo'", person, true},
        {"name ENDSWITH[d] 'e'", person, true}, {"name ENDSWITH 'e'", person, false},
        {"name CONTAINS[c] 'OË'", person, true}, {"name LIKE 'Z?ë'", person, true},
        {"name LIKE[c] 'z*'", person, true}, {"name LIKE 'Z*x'", person, false},
        {"name MATCHES 'Z.+'", person, true}, {"name MATCHES 'Z'", person, false},
        {"age IN {1, 42}", person, true}, {"'b' IN tags", person, true}, {"'c' IN tags", person, false},
        {"tags CONTAINS 'a'", person, true}, {"age BETWEEN {40, 50}", person, true},
        {"age BETWEEN {43, 50}", person, false}, {"ok == YES", person, true}, {"ok == false", person, false},
        {"nothing == nil", person, true}, {"missing == NULL", person, true}, {"nested.city == \"Paris\"", person, true},
        {"ANY items.price > 10", person, true}, {"ALL items.price > 10", person, false},
        {"NONE items.price > 20", person, true}, {"SOME items.sku BEGINSWITH 'y'", person, true},
        {"ANY age > 1", person, false}, {"items[0].price == 5", person, true},
        {"items[LAST].sku == 'y2'", person, true}, {"tags.@count == 2", person, true},
        {"SELF.age == 42", person, true}, {"age > 40 AND ok == true", person, true},
        {"age > 50 OR name == 'Zoë'", person, true}, {"NOT (age > 50)", person, true},
        {"!(age > 50) && ok == true || FALSEPREDICATE", person, true},
        {"age == 1 OR age == 42 AND ok == false", person, false},  // AND binds first
        {"ANY SELF == 2", "[1, 2, 3]", true}, {"SELF[FIRST] == 1", "[1, 2, 3]", true},
        {"TRUEPREDICATE", "{not json", false}, {"TRUEPREDICATE", "\"a string\"", false},
    };
    for (const auto& [format, body, expected] : cases) {
        EXPECT_EQ(JSONPredicatePattern(format).evaluate(body), expected) << format << " on " << body;
    }
}

TEST(JSONPredicatePattern, RefusesAFormatItCannotParseWhenConstructed) {
    for (const char* format : {"", "age ==", "age == 'open", "(age == 1", "age ~ 1", "age == 1 age", "age BETWEEN 1",
                               "name MATCHES '('", "name ==[x] 'a'", "AND == 1", "age == %@", "age == $x", "age == 1 AND"}) {
        EXPECT_THAT([&] { JSONPredicatePattern pattern(format); },
                    ThrowsMessage<JSONPredicatePattern::Error>(StartsWith("Invalid predicate \"" + std::string(format) + "\": ")));
    }
}

}  // namespace
}  // namespace orvel::http
