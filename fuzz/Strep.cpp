// Framework text of all value types, by the tables that tools use. The first line names the type.

#include "Mox/GenericIf.h"

#include "fuzz/ValueChecks.h"
#include "fuzz/ValueOracles.h"

namespace {

// A value of a type that only its table knows, in memory of exactly its size.
class AnyValue {
  public:
    explicit AnyValue(const Mox::GenericIf& about)
        : about_(about), memory_(::operator new(about.size)) {
        about.construct(memory_);
    }
    ~AnyValue() {
        about_.destroy(memory_);
        ::operator delete(memory_);
    }
    AnyValue(const AnyValue&) = delete;
    AnyValue& operator=(const AnyValue&) = delete;

    Mox::String strep() const { return about_.strRep(memory_); }
    std::string strepIs(const Mox::String& strep) {
        return fuzz::rangeErrorOf([&] { about_.strepToValue(strep, memory_); });
    }
    uint32_t hash() const { return about_.hash(memory_); }
    const void* get() const { return memory_; }

  private:
    const Mox::GenericIf& about_;
    void* memory_;
};

void checkStrep(const Mox::GenericIf& about, bool isRecord, const Mox::String& text) {
    AnyValue value(about);
    const Mox::String before = value.strep();
    if (!value.strepIs(text).empty()) {
        Mox::require(value.strep() == before, "a failure changes nothing");
        return;
    }
    const Mox::String strep = value.strep();
    AnyValue read(about);
    AnyValue same(about);
    Mox::require(read.strepIs(strep).empty() && read.strep() == strep, "strep, value, strep");
    Mox::require(same.strepIs(strep).empty() && same.hash() == read.hash(), "the same hash");
    for (const auto& attribute : about.attributes) {
        const Mox::String part = attribute.strep(value.get());
        Mox::require(!isRecord || strep.view().find(part.view()) != std::string_view::npos,
                     "a record shows its fields");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::string_view text = fuzz::asText(data, size);
    const fuzz::ValueChecks& type = fuzz::takeNamedType(&text);
    checkStrep(*type.about, type.isRecord, Mox::String(text));
    return 0;
}
