#pragma once

#include <atomic>
#include <cstdint>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class CVDiagnosticsRows;

namespace ConveyData {

// What the threads of an instance are doing at present, for whoever asks why it does not answer:
// which messages are in their handlers, which replies are waited for, and which messages are being
// handed over, which takes time when the target takes nothing.
//
// Owns nothing: an entry lives on the stack of the thread that is occupied. Threads: any.
class Occupations : public SoLockable {
public:
    enum class Kind : uint8_t { handling, waiting, sending };

    // One thread with one message, from here to the end of the block. `message` stays as it is
    // meanwhile.
    class Entry {
    public:
        Entry(Occupations& of, Kind kind, const Convey::Message& message);
        ~Entry();
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        friend class Occupations;
        Occupations& of_;
        const Kind kind_;
        const Convey::Message& message_;
        const int64_t since_;   // milliseconds of the monotonic clock
        Entry* next_ = nullptr; // the one that began before it
        Entry* previous_ = nullptr;
    };

    Occupations() = default;

    // A pump has come by.
    void notePump();

    // The rows of all entries, newest first, and when the instance was pumped last.
    void appendDiagnostics(CVDiagnosticsRows& rows) const;

private:
    void appendLocked(CVDiagnosticsRows& rows, Kind kind, int64_t time) const SO_REQUIRES(this);

    Entry* newest_ SO_GUARDED_BY(this) = nullptr;
    std::atomic<int64_t> pumped_{-1}; // -1: never
};

} // namespace ConveyData
} // namespace ScObjects
