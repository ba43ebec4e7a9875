#include "foundation/log/Destination.h"

#include "foundation/log/RecordAttributes.h"
#include "foundation/log/Severities.h"

#include <algorithm>
#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/expressions.hpp>
#include <iostream>
#include <stdexcept>

namespace foundation::log {

namespace {

std::ostream& streamNamed(const std::string& name) {
    if (name == "stdout") {
        return std::cout;
    }
    if (name == "stderr") {
        return std::cerr;
    }
    throw std::invalid_argument("Unknown log destination: " + name);
}

std::string_view nameOf(std::uint32_t level) {
    const auto* const found =
        std::find_if(severityNames.begin(), severityNames.end(), [level](const auto& entry) {
            return static_cast<std::uint32_t>(entry.second) == level;
        });
    return found == severityNames.end() ? "unknown" : found->first;
}

void printLine(const boost::log::record_view& record, boost::log::formatting_ostream& line) {
    using boost::log::extract_or_default;
    const auto time = boost::log::extract<boost::posix_time::ptime>(attributes::timeStamp, record);
    if (time) {
        line << boost::posix_time::to_iso_extended_string(time.get()) << ' ';
    }
    line << extract_or_default<std::string>(attributes::channel, record, std::string()) << ' '
         << nameOf(extract_or_default<std::uint32_t>(attributes::severity, record, 0U)) << ": "
         << record[boost::log::expressions::smessage];
}

} // namespace

Destination::Destination(const std::string& name)
    : core(boost::log::core::get()) {
    auto backend = boost::make_shared<boost::log::sinks::text_ostream_backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&streamNamed(name), boost::null_deleter()));
    backend->auto_flush(true);

    sink = boost::make_shared<Sink>(backend);
    sink->set_filter(boost::log::expressions::has_attr<bool>(attributes::diagnostic));
    sink->set_formatter(&printLine);
    core->add_sink(sink);
}

Destination::~Destination() {
    core->remove_sink(sink);
}

} // namespace foundation::log
