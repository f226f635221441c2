// Names of interfaces: long, short and the kernel's; two of them, a line each, are compared too.

#include "Pavo/IntfIdDesc.h"
#include "fuzz/ValueOracles.h"

namespace {

using Pavo::IntfId;
using Pavo::IntfIdPart;

constexpr IntfIdPart first(10, 20, true, '\0');
constexpr IntfIdPart second(10, 10, true, '/');
constexpr IntfIdPart colon(10, 10, true, ':');
constexpr IntfIdPart third(10, 0, true, '/');
constexpr IntfIdPart wide(30, 0, true, '/');
constexpr IntfIdPart sub(25, 0, false, '.');

// Prefixes of prefixes, long names that are short ones of others, and every kind of separator.
constexpr struct {
    uint32_t typeId, subType;
    const char *prefix, *shortPrefix;
    IntfIdPart parts[4];
} forms[] = {
    {1, 0, "Ethernet", "Et", {first, sub}},
    {1, 1, "Ethernet", "Et", {first, second, sub}},
    {1, 2, "Ethernet", "Et", {first, second, third, sub}},
    {2, 0, "Ether", "Ethernet", {}},
    {3, 0, "Port-Channel", "Po", {{30, 0, true, '\0'}, sub}},
    {4, 0, "Vlan", "V", {first, {10, 0, true, '.'}, second}},
    {5, 0, "Vlan", "Vxlan", {first, colon, third}},
    {6, 0, "E.", "", {{25, 0, false, '\0'}, wide}},
    {7, 0, "Ip6Tunnel", "Ip6", {sub, second}},
    {8, 0, "Ip", "E6-", {first, {10, 10, true, 'T'}}},
};

const Pavo::IntfIdDescPluginLoader::Registrar registrar("fuzz", [](Pavo::IntfIdMgr& manager) {
    for (const auto& form : forms) {
        auto desc = manager.intfIdDesc(form.typeId);
        if (!desc) {
            desc = Pavo::intfIdDescFactory(form.typeId, form.prefix, form.shortPrefix);
            manager.intfIdDescIs(desc);
        }
        desc->initializedIs(false);
        for (uint32_t k = 0; k < 4; ++k) {
            desc->partIs({form.subType, k}, form.parts[k]);
        }
        desc->initializedIs(true);
    }
});

void checkShortName(std::string_view text) {
    IntfId id;
    if (fuzz::rangeErrorOf([&] { id = IntfId::fromShortName(text); }).empty()) {
        Mox::require(IntfId::fromShortName(id.shortName()) == id, "short name, id, short name");
        Mox::require(Pavo::shortIntfToVeyIntf(text) == id.stringValue(), "short, long");
        Mox::require(bool(Mox::tryParse<IntfId>(id.stringValue().view())), "short, id, long");
    }
}

// What has a name here and one in the kernel is found again by that.
void checkKernelName(std::string_view text) {
    (void)fuzz::rangeErrorOf([&] { Pavo::kernelIntfToShortVeyIntf(text); });
    const auto id = Mox::tryParse<IntfId>(text);
    Mox::String kernelName;
    if (id && fuzz::rangeErrorOf([&] {
                  kernelName = Pavo::veyIntfToKernelIntf(id->stringValue());
              }).empty()) {
        Mox::require(Pavo::kernelIntfToVeyIntf(kernelName) == id->stringValue(), "kernel name");
    }
}

void checkOrder(std::string_view textA, std::string_view textB) {
    const auto a = Mox::tryParse<IntfId>(textA);
    const auto b = Mox::tryParse<IntfId>(textB);
    if (!a || !b) {
        return;
    }
    const int result = Pavo::compareIntfName(*a, *b);
    const int reversed = Pavo::compareIntfName(*b, *a);
    Mox::require((result > 0) == (reversed < 0) && (result < 0) == (reversed > 0), "reversed");
    Mox::require(*a != *b || result == 0, "the same name");
}

// Each number of a name can be taken out and put in again.
void checkParts(std::string_view text) {
    const auto id = Mox::tryParse<IntfId>(text);
    for (uint32_t k = 0; id && k < Pavo::GenericIntfId(*id).parts(); ++k) {
        Pavo::GenericIntfId other(*id);
        other.partIs(k, 1);
        Mox::require(Mox::tryParse<IntfId>(other.intfId().stringValue().view()) == other.intfId(),
                     "another number");
        other.partIs(k, Pavo::GenericIntfId(*id).part(k));
        Mox::require(other.intfId() == *id, "the number again");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::checkTextAs(fuzz::IntfTypes(), data, size);
    const std::string_view text = fuzz::asText(data, size);
    const std::string_view line = text.substr(0, text.find('\n'));
    checkShortName(line);
    checkKernelName(line);
    checkParts(line);
    if (line.size() < text.size()) {
        checkOrder(line, text.substr(line.size() + 1));
    }
    return 0;
}
