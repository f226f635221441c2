// Sequences of operations on a packet, beside two strings and the sizes that the buffer must have.

#include "fuzz/Frames.h"

namespace {

using Pavo::Pkt;

struct Model {
    explicit Model(uint32_t size) : bufferSize(size), headRoom(size) {}

    std::string priv;
    std::string shared;
    uint32_t bufferSize;
    uint32_t headRoom;
    uint16_t tci = 0;
    uint16_t tpid = 0;
    bool tagged = false;
    bool ownRange = true;  // Whether the buffer's sizes are those of this packet's data alone.

    uint32_t sharedBytes() const { return static_cast<uint32_t>(shared.size()); }

    void growHead(uint32_t n) {
        if (n > headRoom) {
            bufferSize += n;
            headRoom = bufferSize - sharedBytes();
        }
        headRoom -= n;
    }
    void growTail(uint32_t n) {
        if (n > bufferSize - headRoom - sharedBytes()) {
            bufferSize += headRoom < n ? n : 0;
            headRoom = bufferSize - sharedBytes() - n;
        }
    }
    std::string taggedFrame() const {
        std::string frame = priv + shared;
        if (tagged) {
            uint8_t tag[4];
            Pavo::storeNet(tag, tpid);
            Pavo::storeNet(tag + 2, tci);
            frame.insert(std::min<std::size_t>(12, frame.size()),
                         std::string(reinterpret_cast<char*>(tag), sizeof(tag)));
        }
        return frame;
    }
};

class Run {
  public:
    Run(fuzz::Input input, uint32_t bufferSize)
        : input_(input), pkt_(Mox::make<Pkt>()), model_(bufferSize) {
        pkt_->sharedBufferIs(Pavo::globalPktManager()->newSharedBuffer(bufferSize));
    }

    void run() {
        while (!input_.atEnd()) {
            step(input_.u8() % 12);
            check();
        }
        pkt_ = nullptr;
        checkCopy();  // It lives on.
    }

  private:
    void step(uint32_t op) {
        switch (op) {
            case 0:
                return addShared(/*atTail=*/true);
            case 1:
                copy_ = nullptr;  // Head room is written in place, so no other packet may use it.
                return addShared(/*atTail=*/false);
            case 2:
                return addValue(/*atTail=*/true);
            case 3:
                copy_ = nullptr;
                return addValue(/*atTail=*/false);
            case 4: {
                const uint32_t n = upToShared();
                pkt_->delSharedHeadData(n);
                model_.shared.erase(0, n);
                model_.headRoom += n;
                return;
            }
            case 5: {
                const uint32_t n = upToShared();
                pkt_->delSharedTailData(n);
                model_.shared.resize(model_.shared.size() - n);
                return;
            }
            case 6: {
                const auto more = fresh(Pkt::privateAreaBytes - model_.priv.size());
                uint8_t* head = pkt_->newPrivateHeadData(static_cast<uint32_t>(more.size()));
                std::copy(more.begin(), more.end(), head);
                model_.priv.insert(0, more);
                return;
            }
            case 7: {
                const uint32_t n = upTo(static_cast<uint32_t>(model_.priv.size()));
                pkt_->delPrivateHeadData(n);
                model_.priv.erase(0, n);
                return;
            }
            case 8:
                model_.tci = input_.u16();
                model_.tpid = input_.u16();
                model_.tagged = true;
                return pkt_->newSeparateVlanTag(model_.tci, model_.tpid);
            case 9:
                model_.tci = 0;
                model_.tagged = false;
                return pkt_->delSeparateVlanTag();
            case 10: {
                const uint16_t vlanId = input_.u16() & 0x0fff;
                model_.tci = static_cast<uint16_t>((model_.tci & 0xf000) | vlanId);
                return pkt_->tciVlanIdIs(vlanId);
            }
            default:
                copy_ = Pavo::globalPktManager()->newShallowCopy(pkt_);
                copied_ = model_;
                return;
        }
    }

    void addShared(bool atTail) {
        const std::string more = fresh(255);
        const auto n = static_cast<uint32_t>(more.size());
        uint8_t* at = atTail ? pkt_->newSharedTailData(n) : pkt_->newSharedHeadData(n);
        std::copy(more.begin(), more.end(), at);
        added(more, atTail);
    }

    void addValue(bool atTail) {
        const std::string more = fresh(255);
        const auto n = static_cast<uint32_t>(more.size());
        if (n % 2 == 0) {
            pkt_->stringValueIs(Mox::String(more), atTail);
        } else {
            pkt_->bytesValueIs(Mox::Bytes(more.data(), n), atTail);
        }
        added(more, atTail);
    }

    void added(const std::string& more, bool atTail) {
        const auto n = static_cast<uint32_t>(more.size());
        atTail ? model_.growTail(n) : model_.growHead(n);
        model_.shared.insert(atTail ? model_.shared.size() : 0, more);
    }

    uint32_t upToShared() {
        const uint32_t n = upTo(model_.sharedBytes());
        // From here on the packet's range need not be that of the buffer, and appending may copy.
        model_.ownRange = model_.ownRange && (n == 0 || pkt_->sharedBuffer()->references() == 1);
        return n;
    }

    uint32_t upTo(uint32_t most) { return input_.u8() % (most + 1); }

    // New bytes, which differ from those of the step before.
    std::string fresh(std::size_t most) {
        std::string bytes(std::min<std::size_t>(input_.u8(), most), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(next_++);
        }
        return bytes;
    }

    static void checkContents(const Pkt& pkt, const Model& model) {
        const std::string all = model.priv + model.shared;
        Mox::require(pkt.stringValue() == all, "the bytes");
        const Mox::Bytes bytes = pkt.bytesValue();
        Mox::require(std::equal(bytes.begin(), bytes.end(), all.begin(), all.end(),
                                [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }),
                     "the same bytes");
        Mox::require(pkt.totalBytes() == all.size(), "their number");
        Mox::require(pkt.hasSeparateVlanTag() == model.tagged, "tagged or not");
        Mox::require(pkt.separateVlanTci() == model.tci, "the tag");
        Mox::require(pkt.separateVlanTpid() == model.tpid, "the tag's protocol");
        Mox::require(pkt.stringValueMaybeWithVlan() == model.taggedFrame(), "the frame as sent");
    }

    void check() const {
        checkContents(*pkt_, model_);
        checkCopy();
        if (model_.ownRange) {
            Mox::require(pkt_->maxSharedData() == model_.bufferSize, "the buffer's size");
            Mox::require(pkt_->sharedBuffer()->headRoom() == model_.headRoom, "its head room");
        }
        const bool apart = !model_.priv.empty();
        Mox::require(pkt_->firstIoVec() == (apart ? 0 : 1), "private bytes come first");
        Mox::require(pkt_->frontBytes() == (apart ? model_.priv.size() : model_.shared.size()),
                     "as far as a header may reach");
        pkt_->checkMagic();
    }

    void checkCopy() const {
        if (copy_) {
            checkContents(*copy_, copied_);
        }
    }

    fuzz::Input input_;
    Mox::Ptr<Pkt> pkt_;
    Model model_;
    Mox::Ptr<Pkt> copy_;
    Model copied_ = model_;
    uint8_t next_ = 1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t bufferSize = input.u8();
    // The default size has recycled buffers of its own.
    Run(input, bufferSize == 255 ? Pkt::Manager::defaultBufferSize : bufferSize).run();
    return 0;
}
