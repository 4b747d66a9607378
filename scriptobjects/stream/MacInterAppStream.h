#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "limits/Limits.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoVector.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace platform {
enum class SendResult;
class LocalPort;
class PortWait;
class PollSignal;
class PortText;
class TargetWatch;
struct PortPieces;
struct PortPlace;
struct PortStatistics;
} // namespace platform

namespace ScObjects {

// A stream over the system's named message ports. It owns its port and the texts that it has drawn
// from it and not handed on. Sends are put in order by the ports, for each target on its own, so a
// send waits neither for the receiving side nor for a target that does not take its texts.
class SO_EXPORT MacInterAppStream : public BaseInterAppStream {
public:
    // What a send waits at most for a full queue, unless it is told otherwise.
    static constexpr int32_t kSendTimeoutMilliseconds = limits::of("send.wait");
    // `messagePending` draws no more while this much is drawn and not received; a single text may
    // be larger.
    static constexpr int32_t kMaximumDrawnTexts = limits::of("receive.texts");
    static constexpr int64_t kMaximumDrawnBytes = limits::of("receive.bytes");

    // A text that was drawn from the port: owned by the stream until it is received.
    class SO_EXPORT DataRef : public SoHeap {
    public:
        // Takes over what the port received, as it was sent.
        explicit DataRef(platform::PortText& data);
        ~DataRef() override;

        // All of it, or the piece at its beginning that its sender has cut off, and the rest.
        SoString text;
        SoString rest;
        const int32_t process; // that sent it, 0 for unknown
        int32_t bytes() const { return text.length() + rest.length(); }
        const bool mayHaveZero; // false when it is known to hold no zero byte
        // Of the line with a digest of all that follows at its beginning, if that was found to fit
        // while it arrived; 0 for not.
        const size_t sealBytes;
    };

    explicit MacInterAppStream(const SoString& name, bool flag = true);
    ~MacInterAppStream() override;

    bool isGood() const override;
    bool send(const SoString& target, const SoString& text) const override;
    bool receive() override;
    bool messagePending() const override;
    bool canOpen(const SoString& name, bool flag) const override;

    // `canOpen` in three answers. Who decides about launching, or tells a person, must not take for
    // absent what could not be found out (no descriptor left, no memory, a refused folder), which
    // the ports report by themselves. Threads: any; does not wait.
    enum class Presence { absent, present, unknown };
    Presence presenceOf(const SoString& name) const;
    // The same for who has no stream yet.
    static Presence presenceFor(const SoString& name);

    // `send` with a time-out of its own; 0 does not wait at all.
    bool send(const SoString& target, const SoString& text, int32_t timeoutMilliseconds) const;

    // The same; when it is delivered `taker` receives a watch over the process that took it, which
    // tells the end of that process (`platform::TargetWatch` says how).
    bool send(const SoString& target, const SoString& text, int32_t timeoutMilliseconds,
              std::shared_ptr<platform::TargetWatch>& taker) const;

    // Waits until there is something to receive, at most `timeoutMilliseconds`; false when the time
    // is up or the stream is not good. `soon`: an answer is expected that is worth a short busy
    // wait. One thread at a time should wait, since any of them may take the text.
    bool waitForMessage(int32_t timeoutMilliseconds, bool soon) const;

    // A text in pieces; `taker`, where it is not null, as above. What is large is sent from where
    // it is. `failed` also when the stream is not good.
    platform::SendResult send(const SoString& target, const platform::PortPieces& text,
                              int32_t timeoutMilliseconds,
                              std::shared_ptr<platform::TargetWatch>* taker) const;

    // Takes the text that arrived first, its NUL bytes still in it; null when none has been drawn.
    [[nodiscard]] std::unique_ptr<DataRef> take();
    // The same, and with `draws`, which becomes false then, draws first what has arrived, as
    // `messagePending` does, when none has been drawn.
    [[nodiscard]] std::unique_ptr<DataRef> take(bool& draws);
    // True when large texts were read in part only, so that nothing else waits for their end: there
    // is more of them already.
    bool hasMore() const;
    // False while what is to be done at the port is not told (`platform::LocalPort` says when).
    bool tellsAll() const;
    // Leaves what this process sends with it from now on, but for what is drawn already, or draws
    // it again.
    void hold(int32_t process, bool on);

    // The place behind all that this process has sent here until now. The stream must be good.
    platform::PortPlace placeBehind(int32_t process) const;
    // True once all from before the place has been received, or will never be
    // (`platform::LocalPort` says when); also when the stream is not good any more.
    bool isPast(const platform::PortPlace& place) const;

    // Gives the name back at once and drops what was drawn; the stream is not good from now on.
    // Waits for no one, and not for a send that another thread has under way.
    void close();

    // Lets texts that arrive end the waits of `wait`, which tells of them by `number`, until the
    // stream is closed.
    void watch(platform::PortWait& wait, uint64_t number) const;

    // While `on`, what has arrived makes `signal` readable until it is taken, and ends no wait of
    // `wait`, which watches the stream. `signal` is used until the stream is closed. False when
    // nothing has changed: the stream is not good, or the system cannot.
    bool divert(platform::PortWait& wait, platform::PollSignal& signal, bool on) const;

    // What the port has met since it was opened; nothing when the stream is not good.
    platform::PortStatistics statistics() const;

private:
    bool drawLocked(int32_t maximumTexts) const SO_REQUIRES(this);

    std::shared_ptr<platform::LocalPort> port() const;

    std::shared_ptr<platform::LocalPort> port_ SO_GUARDED_BY(this); // null: not good
    mutable platform::PollSignal* divertedTo_ SO_GUARDED_BY(this) = nullptr;
    mutable uint64_t watchNumber_ SO_GUARDED_BY(this) = 0;
    mutable SoVector<DataRef> drawn_ SO_GUARDED_BY(this);
    mutable int64_t drawnBytes_ SO_GUARDED_BY(this) = 0;
    // How many have been drawn. Changes under the lock; read without, to take none.
    mutable std::atomic<int32_t> drawnTexts_{0};
};

} // namespace ScObjects
