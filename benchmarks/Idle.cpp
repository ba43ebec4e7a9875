// Does nothing but have Boost.Log loaded.

#include <boost/log/core.hpp>

int main() {
    return boost::log::core::get() == nullptr ? 1 : 0;
}
