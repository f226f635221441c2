/// @file
/// An entity to observe, an observer that writes down what it hears, and the rule that attribute
/// numbers keep.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Entity.h"

namespace PavoTest {

/// Has a plain attribute, a second one, and a collection. Its own handler runs before observers.
class TestEntity : public Mox::Entity {
  public:
    static constexpr Mox::Attribute<TestEntity> levelAttr{0, "level"};
    static constexpr Mox::Attribute<TestEntity> otherAttr{1, "other"};
    static constexpr Mox::Attribute<TestEntity, uint32_t> memberAttr{2, "member"};
    static const Mox::FwkType type;

    ~TestEntity() override = default;
    const Mox::FwkType* fwkType() const override { return &type; }

    int level() const { return level_; }
    void levelIs(int level) {
        if (changed(level_, level)) {
            handleLevel();
            notify(levelAttr);
        }
    }
    void otherIs(int other) { attributeIs(other_, other, otherAttr); }
    void memberIs(uint32_t member) {
        if (members_.add(member)) {
            notify(memberAttr, member);
        }
    }
    void memberDelAll() {
        members_.delAll([this](uint32_t member) { notify(memberAttr, member); });
    }

    virtual void handleLevel() {}

  private:
    int level_ = 0;
    int other_ = 0;
    Mox::Set<uint32_t> members_;
};

inline constexpr const Mox::AttributeBase* testEntityAttributes[] = {
    &TestEntity::levelAttr, &TestEntity::otherAttr, &TestEntity::memberAttr};
inline constinit const Mox::FwkType TestEntity::type{"PavoTest::TestEntity", &Mox::Entity::type,
                                                     testEntityAttributes};

/// Adds its name to a log at each change of `level`, then does what `action` says; the action gets
/// the number of the call, from 1.
class Recorder : public Mox::Notifiee {
  public:
    Recorder(Mox::Ptr<TestEntity> entity, char name, std::string* log)
        : Notifiee(std::move(entity), TestEntity::levelAttr), name_(name), log_(log) {}
    ~Recorder() override = default;

    std::function<void(int call)> action;

    void handleChange(const Mox::Change&) override {
        *log_ += name_;
        if (action) {
            const auto held = action;
            held(++calls_);
        }
    }

  private:
    char name_;
    std::string* log_;
    int calls_ = 0;
};

/// What is wrong with the attributes of a class and its bases, "" when nothing is: the numbers of
/// the whole chain are 0, 1, 2 and so on, each once, below 64, and every name is there once.
inline std::string attributeFault(const Mox::FwkType& type) {
    std::vector<const Mox::AttributeBase*> byNumber;
    for (const Mox::FwkType* each = &type; each != nullptr; each = each->base) {
        byNumber.insert(byNumber.end(), each->attributes.begin(), each->attributes.end());
    }
    std::vector<const Mox::AttributeBase*> found(byNumber.size(), nullptr);
    for (const Mox::AttributeBase* each : byNumber) {
        const std::string number = std::to_string(each->number);
        if (each->number >= found.size() || each->number >= 64) {
            return number + " leaves a gap";
        }
        if (found[each->number] != nullptr) {
            return number + " stands twice";
        }
        found[each->number] = each;
        for (const Mox::AttributeBase* other : byNumber) {
            if (other != each && std::string(other->name) == each->name) {
                return std::string(each->name) + " stands twice";
            }
        }
    }
    return "";
}

}  // namespace PavoTest
