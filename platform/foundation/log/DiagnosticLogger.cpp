#include "foundation/log/DiagnosticLogger.h"

#include "foundation/log/RecordAttributes.h"
#include "foundation/log/Roster.h"

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/detail/default_attribute_names.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <utility>

namespace foundation::log {

struct basic_diagnostic_logger<char>::Source {
    explicit Source(std::string channelName)
        : channel(std::move(channelName))
        , records(boost::log::keywords::channel = channel) {
        // On this logger and not on the core, whose attributes are the application's.
        records.add_attribute(attributes::timeStamp, boost::log::attributes::local_clock());
        records.add_attribute(attributes::diagnostic, boost::log::attributes::constant<bool>(true));
    }

    std::shared_ptr<Roster> roster = Roster::get();
    std::string channel;
    boost::log::sources::severity_channel_logger_mt<std::uint32_t, std::string> records;
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel)
    : enabledMask(0)
    , source(std::make_unique<Source>(std::move(channel))) {
    source->roster->add(*this);
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() {
    source->roster->remove(*this);
}

const std::string& basic_diagnostic_logger<char>::channel() const noexcept {
    return source->channel;
}

void basic_diagnostic_logger<char>::setEnabledMask(std::uint32_t mask) noexcept {
    enabledMask.store(mask, std::memory_order_relaxed);
}

void basic_diagnostic_logger<char>::write(severity level, const std::string& message) {
    auto record = source->records.open_record(boost::log::keywords::severity =
                                                  static_cast<std::uint32_t>(level));
    if (record) {
        // Not through a record stream: its storage for each thread may be gone at process exit,
        // while endpoints with static storage still are to log their end.
        record.attribute_values().insert(boost::log::aux::default_attribute_names::message(),
                                         boost::log::attributes::make_attribute_value(message));
        source->records.push_record(std::move(record));
    }
}

} // namespace foundation::log
