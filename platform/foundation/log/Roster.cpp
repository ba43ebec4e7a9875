#include "foundation/log/Roster.h"

#include <utility>

namespace foundation::log {

std::shared_ptr<Roster> Roster::get() {
    static const auto instance = std::make_shared<Roster>();
    return instance;
}

void Roster::add(basic_diagnostic_logger<char>& logger) {
    const std::lock_guard guard(mutex);
    loggers.insert(&logger);
    logger.setEnabledMask(filter.maskOf(logger.channel()));
}

void Roster::remove(basic_diagnostic_logger<char>& logger) noexcept {
    const std::lock_guard guard(mutex);
    loggers.erase(&logger);
}

void Roster::setFilter(Filter next) {
    const std::lock_guard guard(mutex);
    filter = std::move(next);
    for (auto* logger : loggers) {
        logger->setEnabledMask(filter.maskOf(logger->channel()));
    }
}

} // namespace foundation::log
