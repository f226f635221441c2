// The types of interfaces that most systems have. Numbers before "." are in the high half of
// an id, that of a sub-interface in the 25 low bits.

#include <cstdint>

#include "Pavo/IntfIdDesc.h"

namespace {

using Pavo::IntfIdPart;

constexpr IntfIdPart subInterface(25, 0, false, '.');
constexpr IntfIdPart one(20, 0, true, '\0');
constexpr IntfIdPart firstOfTwo(15, 15, true, '\0');
constexpr IntfIdPart secondOfTwo(15, 0, true, '/');
constexpr IntfIdPart firstOfThree(10, 20, true, '\0');
constexpr IntfIdPart secondOfThree(10, 10, true, '/');
constexpr IntfIdPart thirdOfThree(10, 0, true, '/');

struct InterfaceType {
    uint32_t typeId;
    const char* prefix;
    const char* shortPrefix;
    IntfIdPart parts[3][4];  // By sub-type and place.
};

constexpr InterfaceType types[] = {
    {1,
     "Ethernet",
     "Et",
     {{one, subInterface},
      {firstOfTwo, secondOfTwo, subInterface},
      {firstOfThree, secondOfThree, thirdOfThree, subInterface}}},
    {2, "Port-Channel", "Po", {{one, subInterface}}},
    {3, "Vlan", "Vl", {{IntfIdPart(12, 0, true, '\0')}}},
    {4, "Loopback", "Lo", {{one}}},
    {5, "Management", "Ma", {{one}, {firstOfTwo, secondOfTwo}}},
    {6, "Tunnel", "Tu", {{one}}},
    {7, "Vxlan", "Vx", {{one}}},
};

void describeCommonInterfaces(Pavo::IntfIdMgr& manager) {
    for (const InterfaceType& about : types) {
        const auto desc = Pavo::intfIdDescFactory(about.typeId, about.prefix, about.shortPrefix);
        for (uint32_t subType = 0; subType < 3; ++subType) {
            for (uint32_t place = 0; place < 4; ++place) {
                desc->partIs({subType, place}, about.parts[subType][place]);
            }
        }
        desc->initializedIs(true);
        manager.intfIdDescIs(desc);
    }
}

const Pavo::IntfIdDescPluginLoader::Registrar registrar("common", describeCommonInterfaces);

}  // namespace
