#pragma once

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

// The endpoint at which other processes of the user reach this one: it receives texts at a named
// port of its own and sends texts to the ports of others. This base keeps the name and the text
// that was received; how texts travel is its derived classes'.
//
// A stream that could not get its name, or a port at all, is not good: it receives and sends
// nothing, and nothing is thrown. Threads: any, unless an operation says otherwise.
class SO_EXPORT BaseInterAppStream : public SoLockable {
public:
    // Begins the name of every port, on every system, so that names agree.
    static constexpr const char* kPortNamePrefix = R"(\\.\port\Nord_and_Sud_)";

    // `flag` has no meaning of its own and is passed through.
    explicit BaseInterAppStream(const SoString& name, bool flag = true);
    ~BaseInterAppStream() override;

    // True when no received text is pending.
    virtual bool isEmpty() const;
    // Takes all pending text: one message text after another.
    virtual SoString getMessages();
    // True when the stream owns its name.
    virtual bool isGood() const = 0;
    // Hands `text` to the owner of the stream name `target`. True when it lies whole in that
    // process's queue; false when nobody owns the name, when the queue stayed full for 10 seconds,
    // or when the text is longer than 65 MiB. Waits for as long.
    virtual bool send(const SoString& target, const SoString& text) const = 0;
    // Moves the text that arrived first to the pending text, its NUL bytes turned into line feeds,
    // so that a sender's terminator becomes a line end. False when none has been drawn, or an empty
    // one. Does not look for new ones: `messagePending` does.
    virtual bool receive() = 0;
    // Draws what has arrived, within a bound that keeps a flood from holding the caller; true when
    // there is something to receive. Does not wait.
    virtual bool messagePending() const = 0;
    // True when `name` is free: a stream of that name would be good. Takes nothing.
    virtual bool canOpen(const SoString& name, bool flag) const;

    // The stream's name, without the prefix.
    const SoString& getName() const { return name_; }
    bool getFlag() const { return flag_; }

protected:
    // Appends a received text to the pending text.
    void appendPending(SoString&& text);

private:
    SoString pending_ SO_GUARDED_BY(this);
    const SoString name_;
    const bool flag_;
};

} // namespace ScObjects
