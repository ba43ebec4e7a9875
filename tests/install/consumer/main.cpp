// A program of somebody who only has the installed package.

#include <endpointregistry/Endpoint.h>
#include <endpointregistry/EndpointMonitor.h>
#include <endpointregistry/EntryName.h>
#include <endpointregistry/Folders.h>
#include <endpointregistry/Groups.h>
#include <endpointregistry/LockedFile.h>
#include <endpointregistry/Loggers.h>
#include <endpointregistry/NamedStringArray.h>
#include <fl/i18n/UstringConversion.h>
#include <foundation/log/Admin.h>
#include <foundation/paths/CorvantisPath.h>
#include <sharedmemory/SharedMemory.h>

#include <iostream>

int main() {
    using agent::spf::endpointregistry::Endpoint;
    const Endpoint endpoint({"first", "second"}, "consumer", "key");
    try {
        const Endpoint again({"other", "data"}, "consumer", "key");
        return 1;
    } catch (const Endpoint::DuplicateEndpointError&) {
        // Caught by its type across the library's border.
    }
    const auto found = Endpoint::find("consumer", "key");
    agent::spf::endpointregistry::EndpointMonitor monitor("consumer");
    const bool isRight = found && found->first == "first" && found->second == "second" &&
                         monitor.find("consumer", "key") == found && monitor.take().size() == 1;

    using agent::spf::sharedmemory::SharedMemory;
    const auto segment =
        SharedMemory::create("consumer", 1, "", SharedMemory::ImplementationSpecifications::Posix);
    agent::spf::endpointregistry::getLogger().log(foundation::log::severity::error, "unheard");
    std::cout << fl::i18n::ustring_to_utf8(u"found") << " " << isRight << "\n";
    return isRight && segment.isAttached() ? 0 : 1;
}
