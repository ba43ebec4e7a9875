#include "foundation/log/Admin.h"

#include "foundation/log/Destination.h"
#include "foundation/log/Filter.h"
#include "foundation/log/Roster.h"

#include <mutex>

namespace foundation::log::local {

namespace {

class ProcessAdmin : public admin {
public:
    void setDestination(const std::string& name) override {
        const std::lock_guard guard(mutex);
        auto next = std::make_unique<Destination>(name);
        destination = std::move(next);
    }

    void setFilter(const std::string& filter) override { roster->setFilter(Filter(filter)); }

private:
    std::shared_ptr<Roster> roster = Roster::get();
    std::mutex mutex;
    std::unique_ptr<Destination> destination;
};

} // namespace

admin::~admin() = default;

std::shared_ptr<admin> admin::get() {
    static const std::shared_ptr<admin> instance = std::make_shared<ProcessAdmin>();
    return instance;
}

} // namespace foundation::log::local
