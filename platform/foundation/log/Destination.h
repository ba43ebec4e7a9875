#pragma once

#include <boost/log/core/core.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/shared_ptr.hpp>
#include <string>

namespace foundation::log {

/// The stream that diagnostic records are printed to: a Boost.Log sink beside whatever sinks the
/// application has. It takes only diagnostic records, so the application's are not printed twice.
class Destination {
public:
    /// Adds the sink. Throws std::invalid_argument unless the name is "stdout" or "stderr".
    explicit Destination(const std::string& name);

    /// Removes the sink.
    ~Destination();

    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

private:
    using Sink = boost::log::sinks::synchronous_sink<boost::log::sinks::text_ostream_backend>;
    // Held, since at process exit the core's own reference may be gone first.
    boost::log::core_ptr core;
    boost::shared_ptr<Sink> sink;
};

} // namespace foundation::log
