#include "http/WSFrameValidator.h"

#include "HTTPTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;

auto failsWith(const char* text) { return ::testing::ThrowsMessage<WSFrameValidator::Error>(::testing::StrEq(text)); }

TEST(WSFrameReassembly, JoinsFragmentsUnderTheFirstHeaderAndPassesOtherFramesBetween) {
    WSFrameValidator::Validator validator;
    WSFrame ping{.fin = true, .rsv2 = true, .opcode = Opcode::ping, .mask = WSFrame::Mask{1, 2, 3, 4}, .payload = {7}};
    EXPECT_EQ(validator.validate(ping), ping);
    EXPECT_FALSE(validator.validate(WSFrame{.fin = false, .rsv1 = true, .opcode = Opcode::text, .payload = {'a'}}));
    EXPECT_EQ(validator.validate(frame(Opcode::ping, true, {9})), frame(Opcode::ping, true, {9}));
    EXPECT_EQ(validator.validate(frame(Opcode::binary, true, {1})), frame(Opcode::binary, true, {1}));
    EXPECT_FALSE(validator.validate(frame(Opcode::continuation, false)));
    EXPECT_EQ(validator.validate(frame(Opcode::continuation, true, {'c'})),
              (WSFrame{.fin = true, .rsv1 = true, .opcode = Opcode::text, .payload = {'a', 'c'}}));
    EXPECT_FALSE(validator.last());
    // Unknown opcodes are not control frames here: they fragment like data.
    EXPECT_FALSE(validator.validate(frame(static_cast<Opcode>(0xB), false)));
    EXPECT_EQ(validator.validate(frame(Opcode::continuation, true)), frame(static_cast<Opcode>(0xB), true));
}

TEST(WSFrameValidationFailures, EachBrokenRuleHasItsText) {
    struct Case {
        std::vector<WSFrame> before;
        WSFrame breaking;
        const char* text;
    };
    const Case cases[] = {
        {{}, frame(Opcode::continuation, true), "Unexpected Continuation"},
        {{}, frame(Opcode::continuation, false), "Unexpected Continuation"},
        {{frame(Opcode::text, false, {'a'})}, frame(Opcode::binary, false), "Unexpected Incomplete"},
        {{}, frame(Opcode::close, false), "Unsupport Control Continuation"},
        {{}, frame(Opcode::ping, false), "Unsupport Control Continuation"},
        {{}, frame(Opcode::pong, false), "Unsupport Control Continuation"},
    };
    for (const auto& c : cases) {
        WSFrameValidator::Validator validator;
        for (const auto& f : c.before) validator.validate(f);
        EXPECT_THAT([&] { validator.validate(c.breaking); }, failsWith(c.text));
    }
}

TEST(WSFrameValidationFailures, MessagesAreLimitedTo16MiB) {
    const std::size_t limit = WSFrameValidator::maxMessageSize;
    ASSERT_EQ(limit, 16u * 1024 * 1024);
    WSFrameValidator::Validator validator;
    EXPECT_TRUE(validator.validate(frame(Opcode::binary, true, Bytes(limit))));
    EXPECT_THAT([&] { validator.validate(frame(Opcode::binary, true, Bytes(limit + 1))); }, failsWith("Message Too Large"));

    validator.validate(frame(Opcode::binary, false, Bytes(limit / 2)));
    EXPECT_FALSE(validator.validate(frame(Opcode::continuation, false, Bytes(limit / 2))));
    EXPECT_EQ(validator.last()->payload.size(), limit);
    EXPECT_THAT([&] { validator.validate(frame(Opcode::continuation, true, Bytes(1))); }, failsWith("Message Too Large"));
    EXPECT_FALSE(validator.last()) << "the oversized message is dropped";
}

}  // namespace
}  // namespace orvel::http
