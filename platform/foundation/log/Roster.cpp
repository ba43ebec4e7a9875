#include "foundation/log/Roster.h"

#include <boost/log/core/core.hpp>
#include <utility>

namespace foundation::log {

namespace {

/// Closes the roster when the process destroys what has static storage. Whatever is destroyed even
/// later, an endpoint for instance, would log to a Boost.Log that is gone.
class ClosedAtExit {
public:
    explicit ClosedAtExit(std::shared_ptr<Roster> roster)
        : roster(std::move(roster)) {}
    ClosedAtExit(const ClosedAtExit&) = delete;
    ClosedAtExit& operator=(const ClosedAtExit&) = delete;
    ~ClosedAtExit() { roster->close(); }

    const std::shared_ptr<Roster>& get() const { return roster; }

private:
    // The core first, so that it goes last.
    boost::log::core_ptr core = boost::log::core::get();
    std::shared_ptr<Roster> roster;
};

} // namespace

std::shared_ptr<Roster> Roster::get() {
    static const ClosedAtExit instance(std::make_shared<Roster>());
    return instance.get();
}

void Roster::add(basic_diagnostic_logger<char>& logger) {
    const std::lock_guard guard(mutex);
    loggers.insert(&logger);
    if (!isClosed) {
        logger.setEnabledMask(filter.maskOf(logger.channel()));
    }
}

void Roster::remove(basic_diagnostic_logger<char>& logger) noexcept {
    const std::lock_guard guard(mutex);
    loggers.erase(&logger);
}

void Roster::setFilter(Filter next) {
    const std::lock_guard guard(mutex);
    if (isClosed) {
        return;
    }
    filter = std::move(next);
    for (auto* logger : loggers) {
        logger->setEnabledMask(filter.maskOf(logger->channel()));
    }
}

void Roster::close() noexcept {
    const std::lock_guard guard(mutex);
    isClosed = true;
    for (auto* logger : loggers) {
        logger->setEnabledMask(0);
    }
}

} // namespace foundation::log
