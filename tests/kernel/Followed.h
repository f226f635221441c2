/// @file
/// A namespace that is followed.
#pragma once

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <sstream>
#include <string>

#include "Pavo/KernelInfo.h"
#include "Pavo/NetnsUtils.h"
#include "kernel/KernelText.h"
#include "kernel/Shadow.h"
#include "support/SandboxTest.h"

namespace PavoTest {

/// A namespace that is followed.
struct Followed {
    explicit Followed(const std::string& name, uint32_t rcvBufBytes = 0) : netNs(name) {
        EXPECT_EQ(Pavo::netNsAddEvenIfPresent(name.c_str()), 0);
        session->rcvBufBytesIs(rcvBufBytes);
        info->followsRoutesIs(true);
        session->enabledIs(true);
    }
    ~Followed() {
        shadow = nullptr;
        info = nullptr;
        session->enabledIs(false);
        Pavo::netNsDelete(netNs.c_str());
    }
    void ip(const std::string& command) {
        std::istringstream words("ip -n " + netNs + " " + command);
        run({std::istream_iterator<std::string>(words), {}});
    }
    /// What still differs between ip(8), the entities and what their observers alone know, after a
    /// while, when no message is left to be read.
    std::string difference() {
        std::string text;
        const auto isEqual = [&] {
            for (int turns = 0; loop.turn(0.02) != 0 && turns < 100'000; ++turns) {
            }
            const Lines known = linesOf(*info);
            text = differenceOf(known, linesOfIp(netNs)) + differenceOf(shadow->lines(), known);
            return text.empty() && info->isInSync();
        };
        EXPECT_TRUE(turnsUntil(loop, isEqual, /*seconds=*/30)) << "not in sync, or different";
        return text;
    }
    /// The answer to a request.
    Pavo::NetlinkAnswer ask(const Pavo::NetlinkMessage& message) {
        Pavo::NetlinkAnswer got{-1, {}};
        session->requestIs(message, [&](const Pavo::NetlinkAnswer& answer) { got = answer; });
        EXPECT_TRUE(turnsUntil(loop, [&] { return got.error != -1; }));
        return got;
    }
    Mox::Ptr<Pavo::Link> link(const char* name) {
        EXPECT_TRUE(turnsUntil(loop, [&] { return info->linkByName(name) != nullptr; })) << name;
        return info->linkByName(name);
    }

    const std::string netNs;
    Mox::EventLoop loop;
    Mox::Ptr<Pavo::NetlinkSession> session =
        Pavo::netlinkSessionFactory(netNs, Pavo::NamespaceName(netNs), loop.clock());
    Mox::Ptr<Pavo::KernelInfo> info = Pavo::kernelInfoFactory(netNs, session);
    std::unique_ptr<Shadow> shadow = std::make_unique<Shadow>(info);
};

}  // namespace PavoTest
