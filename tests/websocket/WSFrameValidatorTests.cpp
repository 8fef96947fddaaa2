#include "websocket/WSFrameValidator.h"

#include "WSTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;

auto failsWith(const char* text) { return ::testing::ThrowsMessage<WSFrameValidator::Error>(::testing::StrEq(text)); }

TEST(WSFrameReassembly, JoinsFragmentsUnderTheFirstHeaderAndPassesControlFramesBetween) {
    WSFrameValidator::Validator validator;
    WSFrame ping{.fin = true, .opcode = Opcode::ping, .mask = WSFrame::Mask{1, 2, 3, 4}, .payload = Bytes(125, 7)};
    EXPECT_EQ(validator.validate(ping), ping);
    EXPECT_FALSE(validator.validate(frame(Opcode::text, false, {'a'})));
    EXPECT_EQ(validator.validate(frame(Opcode::ping, true, {9})), frame(Opcode::ping, true, {9}));
    EXPECT_FALSE(validator.validate(frame(Opcode::continuation, false)));
    EXPECT_EQ(validator.validate(frame(Opcode::continuation, true, {'c'})), frame(Opcode::text, true, {'a', 'c'}));
    EXPECT_FALSE(validator.last());
    EXPECT_EQ(validator.validate(frame(Opcode::binary, true, {1})), frame(Opcode::binary, true, {1}));
}

TEST(WSFrameValidationFailures, EachBrokenRuleHasItsText) {
    auto close = [](Bytes payload) { return frame(Opcode::close, true, std::move(payload)); };
    struct Case {
        std::vector<WSFrame> before;
        WSFrame breaking;
        const char* text;
    };
    const Case cases[] = {
        {{}, frame(Opcode::continuation, true), "Unexpected Continuation"},
        {{}, frame(Opcode::continuation, false), "Unexpected Continuation"},
        {{frame(Opcode::text, false, {'a'})}, frame(Opcode::binary, false), "Unexpected Incomplete"},
        {{frame(Opcode::text, false, {'a'})}, frame(Opcode::text, true), "Unexpected Incomplete"},
        {{}, frame(Opcode::close, false), "Unsupport Control Continuation"},
        {{}, frame(Opcode::ping, false), "Unsupport Control Continuation"},
        {{}, frame(Opcode::pong, false), "Unsupport Control Continuation"},
        {{}, frame(static_cast<Opcode>(0xB), false), "Unsupport Control Continuation"},
        {{}, frame(Opcode::ping, true, Bytes(126)), "Control Frame Too Large"},
        {{}, WSFrame{.rsv1 = true, .opcode = Opcode::text}, "Reserved Bits Set"},
        {{}, WSFrame{.rsv2 = true, .opcode = Opcode::ping}, "Reserved Bits Set"},
        {{frame(Opcode::text, false)}, WSFrame{.fin = true, .rsv3 = true}, "Reserved Bits Set"},
        {{}, close({0x03}), "Invalid Close Frame"},
        {{}, close({0x03, 0xE7}), "Invalid Close Frame"},  // 999
        {{}, close({0x03, 0xEC}), "Invalid Close Frame"},  // 1004
        {{}, close({0x03, 0xED}), "Invalid Close Frame"},  // 1005
        {{}, close({0x03, 0xEE}), "Invalid Close Frame"},  // 1006
        {{}, close({0x03, 0xF7}), "Invalid Close Frame"},  // 1015
        {{}, close({0x03, 0xF8}), "Invalid Close Frame"},  // 1016
        {{}, close({0x0B, 0xB7}), "Invalid Close Frame"},  // 2999
        {{}, close({0x03, 0xE8, 0xC3, 0x28}), "Invalid Close Frame"},  // reason not UTF-8
    };
    for (const auto& c : cases) {
        WSFrameValidator::Validator validator;
        for (const auto& f : c.before) validator.validate(f);
        EXPECT_THAT([&] { validator.validate(c.breaking); }, failsWith(c.text)) << ::testing::PrintToString(c.breaking.payload);
    }
    // The codes a peer may send, around each forbidden range.
    for (Bytes payload : {Bytes{}, Bytes{0x03, 0xE8}, Bytes{0x03, 0xEB}, Bytes{0x03, 0xEF}, Bytes{0x03, 0xF6},
                          Bytes{0x0B, 0xB8, 'o', 'k'}, Bytes{0x13, 0x87}}) {  // -, 1000, 1003, 1007, 1014, 3000, 4999
        WSFrameValidator::Validator validator;
        EXPECT_EQ(validator.validate(close(payload)), close(payload));
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
