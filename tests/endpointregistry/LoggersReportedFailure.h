#pragma once

#include "tests/support/LogCapture.h"

#include <exception>
#include <gtest/gtest.h>
#include <string>
#include <typeinfo>
#include <vector>

namespace tests {

/// Expects the call to throw exactly this type of exception with exactly this text.
template<typename Exception, typename Call>
void expectThrown(const Call& call, const std::string& text) {
    try {
        call();
        ADD_FAILURE() << "nothing was thrown instead of: " << text;
    } catch (const std::exception& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(Exception)) << thrown.what();
        EXPECT_EQ(thrown.what(), text);
    }
}

/// Expects the call to write exactly these messages to the registry's channel, as errors.
template<typename Call>
void expectLogged(const Call& call, const std::vector<std::string>& messages) {
    const LogCapture log;
    call();
    std::vector<LogRecord> expected;
    expected.reserve(messages.size());
    for (const std::string& message : messages) {
        expected.push_back({registryChannel, 512, message});
    }
    const std::vector<LogRecord> written = log.records();
    EXPECT_EQ(written, expected) << (written.empty() ? "nothing written" : written.back().message);
}

/// Expects the call to throw, and to write one message about it before.
template<typename Exception, typename Call>
void expectReported(const Call& call, const std::string& text, const std::string& message) {
    expectLogged([&] { expectThrown<Exception>(call, text); }, {message});
}

} // namespace tests
