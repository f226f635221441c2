/// @file
/// An entity to observe, an observer that writes down what it hears, and the rule that attribute
/// numbers keep.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "Mox/Collections.h"
#include "Mox/Entity.h"

namespace PavoTest {

/// Has a plain attribute, a second one, and a collection.
class TestEntity : public Mox::Entity {
  public:
    static constexpr Mox::Attribute<TestEntity> levelAttr{0, "level"};
    static constexpr Mox::Attribute<TestEntity> otherAttr{1, "other"};
    static constexpr Mox::Attribute<TestEntity, uint32_t> memberAttr{2, "member"};
    static const Mox::FwkType type;

    ~TestEntity() override = default;
    const Mox::FwkType* fwkType() const override { return &type; }

    int level() const { return level_; }
    void levelIs(int level) { attributeIs(level_, level, levelAttr); }
    void otherIs(int other) { attributeIs(other_, other, otherAttr); }
    void memberIs(uint32_t member) {
        if (members_.add(member)) {
            notify(memberAttr, member);
        }
    }
    void memberDelAll() {
        members_.delAll([this](uint32_t member) { notify(memberAttr, member); });
    }

  private:
    int level_ = 0;
    int other_ = 0;
    Mox::Set<uint32_t> members_;
};

inline constexpr const Mox::AttributeBase* testEntityAttributes[] = {
    &TestEntity::levelAttr, &TestEntity::otherAttr, &TestEntity::memberAttr};
inline constinit const Mox::FwkType TestEntity::type{"PavoTest::TestEntity", &Mox::Entity::type,
                                                     testEntityAttributes};

/// Adds its name to a log at each change of `level`, then does what `action` says.
class Recorder : public Mox::Notifiee {
  public:
    Recorder(Mox::Ptr<TestEntity> entity, char name, std::string* log)
        : Notifiee(std::move(entity), TestEntity::levelAttr), name_(name), log_(log) {}
    ~Recorder() override = default;

    std::function<void()> action;
    Mox::Ptr<Recorder> owned;

    void handleChange(const Mox::Change&) override {
        *log_ += name_;
        if (const auto held = action) {
            held();
        }
    }

  private:
    char name_;
    std::string* log_;
};

/// What is wrong with the attributes of a class and its bases, "" when nothing is: the numbers of
/// the whole chain are 0, 1, 2 and so on, each once, below 64, and every name is there once.
inline std::string attributeFault(const Mox::FwkType& type) {
    std::set<uint32_t> numbers;
    std::set<std::string> names;
    for (const Mox::FwkType* each = &type; each != nullptr; each = each->base) {
        for (const Mox::AttributeBase* attribute : each->attributes) {
            if (!numbers.insert(attribute->number).second) {
                return std::to_string(attribute->number) + " stands twice";
            }
            if (!names.insert(attribute->name).second) {
                return std::string(attribute->name) + " stands twice";
            }
        }
    }
    const bool good = numbers.empty() || *numbers.rbegin() == numbers.size() - 1;
    return good && numbers.size() <= 64 ? "" : std::to_string(*numbers.rbegin()) + " leaves a gap";
}

}  // namespace PavoTest
