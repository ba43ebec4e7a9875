#include "tests/support/LogCapture.h"

#include "foundation/log/Admin.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

namespace tests {

namespace {

namespace logging = boost::log;

class Backend : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
public:
    void consume(const logging::record_view& record) {
        collected.push_back(
            {logging::extract_or_throw<std::string>("Channel", record),
             logging::extract_or_throw<std::uint32_t>("Severity", record),
             logging::extract_or_default<std::string>("Message", record, std::string())});
    }

    const std::vector<LogRecord>& records() const { return collected; }

private:
    std::vector<LogRecord> collected;
};

} // namespace

class LogCapture::Sink {
public:
    Sink() {
        frontend->set_filter(logging::expressions::has_attr<std::string>("Channel") &&
                             logging::expressions::has_attr<std::uint32_t>("Severity"));
        logging::core::get()->add_sink(frontend);
    }
    ~Sink() { logging::core::get()->remove_sink(frontend); }

    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    std::vector<LogRecord> records() const { return frontend->locked_backend()->records(); }

private:
    using Frontend = logging::sinks::synchronous_sink<Backend>;
    boost::shared_ptr<Frontend> frontend = boost::make_shared<Frontend>();
};

LogCapture::LogCapture()
    : LogCapture(registryChannel + "=all;" + moveAndDestructionChannel +
                 "=all;agent::spf::sharedmemory=all") {
}

LogCapture::LogCapture(const std::string& filter)
    : sink(std::make_unique<Sink>()) {
    foundation::log::local::admin::get()->setFilter(filter);
}

LogCapture::~LogCapture() {
    // Before the sink goes: Boost.Log prints to the console when it has none.
    foundation::log::local::admin::get()->setFilter("");
}

std::vector<LogRecord> LogCapture::records() const {
    return sink->records();
}

} // namespace tests
