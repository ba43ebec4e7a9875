#pragma once

#include "foundation/log/Admin.h"
#include "foundation/log/DiagnosticLogger.h"
#include "foundation/log/Severities.h"
#include "tests/support/ForkedProcess.h"

#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace tests {

using Logger = foundation::log::basic_diagnostic_logger<char>;
using foundation::log::severity;

inline void setFilter(const std::string& filter) {
    foundation::log::local::admin::get()->setFilter(filter);
}

inline void setDestination(const std::string& name) {
    foundation::log::local::admin::get()->setDestination(name);
}

/// Puts an empty filter back, so that tests of one process do not meet.
class FilterReset {
public:
    FilterReset() = default;
    FilterReset(const FilterReset&) = delete;
    FilterReset& operator=(const FilterReset&) = delete;
    ~FilterReset() { setFilter(""); }
};

struct Output {
    std::string standard;
    std::string error;
};

/// What `body` prints in a process of its own: destinations cannot be taken back.
inline Output outputOf(const std::function<void()>& body) {
    ForkedProcess child([&body](Channel& channel) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        body();
        channel.send(testing::internal::GetCapturedStdout());
        channel.send(testing::internal::GetCapturedStderr());
    });
    std::string standard = child.channel().receive();
    std::string error = child.channel().receive();
    EXPECT_EQ(child.waitForExit(), 0) << error;
    return {std::move(standard), std::move(error)};
}

/// A sink as an application adds it to Boost.Log; hands every record to a function.
class ApplicationSink {
public:
    using Receive = std::function<void(const boost::log::record_view&)>;

    explicit ApplicationSink(Receive receive)
        : frontend(boost::make_shared<Frontend>(boost::make_shared<Backend>(std::move(receive)))) {
        boost::log::core::get()->add_sink(frontend);
    }
    ApplicationSink(const ApplicationSink&) = delete;
    ApplicationSink& operator=(const ApplicationSink&) = delete;
    ~ApplicationSink() { boost::log::core::get()->remove_sink(frontend); }

private:
    class Backend
        : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
    public:
        explicit Backend(Receive function)
            : receive(std::move(function)) {}
        void consume(const boost::log::record_view& record) { receive(record); }

    private:
        Receive receive;
    };
    using Frontend = boost::log::sinks::synchronous_sink<Backend>;
    boost::shared_ptr<Frontend> frontend;
};

} // namespace tests
