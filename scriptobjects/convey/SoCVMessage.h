#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace platform {
class PortSeal;
struct PortPieces;
} // namespace platform

namespace ScObjects {

// A free-form header of a message: a node of the message's list, owned by the message.
class SO_EXPORT Convey::Header : public SoHeap {
public:
    // Copies both.
    Header(std::string_view name, std::string_view value);

    // The one that was set before, null behind the last.
    Header* next = nullptr;
    // Compared exactly.
    SoString name;
    // Without line feeds; see `Message::setHeader`.
    SoString value;
};

// What applications send each other: target, sender and type, what it answers, free-form headers
// and a text body, with a text form for the way between processes.
//
// Owns its headers and texts. One thread may change headers or read a text into the message while
// another reads it: changes of the header list and `readFromString` hold the message's lock. Fields
// are plain: whoever shares a message between threads agrees on who writes them. Null texts count
// as empty. Nothing is thrown but std::bad_alloc.
class SO_EXPORT Convey::Message : public SoLockable {
    struct ReadState;

public:
    // The user headers that a text may bring: further ones are left out, since each costs its
    // reader a hundred times the three bytes that it may have in the text.
    static constexpr int32_t kMaximumReadHeaders = limits::of("message.headers");

    // A message of type "Tessaly", made now, without target, sender, serial numbers or time-out.
    Message();
    // A copy of all fields. The headers come in the reverse order, since each is added in front. An
    // empty type becomes "Tessaly".
    Message(const Message& other);
    // The same with another body.
    Message(const Message& other, SoString&& body);
    Message& operator=(const Message&) = delete;
    ~Message() override;

    // The specifier of the application that is to have it.
    const SoString& getTarget() const { return target_; }
    void setTarget(const SoString& target) { target_ = target; }
    // The specifier of who sends it, and gets the replies; empty until it is sent.
    const SoString& getSender() const { return sender_; }
    void setSender(const SoString& sender) { sender_ = sender; }
    // One of `CV_TYPE_...`, or a type of the applications' own.
    const SoString& getType() const { return type_; }
    void setType(const SoString& type) { type_ = type; }
    // The kinds of reply that the sender wants, named in one text: "Received Result Error".
    const SoString& getResponseRequest() const { return responseRequest_; }
    void setResponseRequest(const SoString& request) { responseRequest_ = request; }
    // Any text: line feeds, too, and what is no UTF-8. A NUL byte arrives as a line feed.
    const SoString& getBody() const { return body_; }
    void setBody(const SoString& body) { body_ = body; }
    void setBody(SoString&& body) noexcept { body_ = static_cast<SoString&&>(body); }
    // Takes it out, uncopied: the message has none then.
    SoString takeBody() noexcept { return static_cast<SoString&&>(body_); }
    // The version of the text form: "2.05" unless a text of another version was read.
    SoString getVersion() const { return version_; }
    void setVersion(const SoString& version) { version_ = version; }

    // Seconds that the message lives, counted from its timestamp; 0 means none was given, and read
    // as a signed number below 0 means for ever.
    uint32_t getTimeout() const { return timeout_; }
    void setTimeout(uint32_t seconds) { timeout_ = seconds; }
    // Seconds since 1970.
    uint32_t getTimestamp() const { return timestamp_; }
    void setTimestamp(uint32_t seconds) { timestamp_ = seconds; }
    // The body's length as a text announced it, which may be more than the text had.
    uint32_t getContentLength() const { return contentLength_; }
    // The number by which its replies are known, unique in the sending process; 0 for none.
    uint32_t getSerialNumber() const { return serialNumber_; }
    void setSerialNumber(uint32_t number) { serialNumber_ = number; }
    // The serial number of the message that this one acknowledges, carries the result of, or
    // reports an error of; CV_INVALID_MESSAGE_NUMBER for none.
    uint32_t getReceived() const { return received_; }
    void setReceived(uint32_t number) { received_ = number; }
    uint32_t getResult() const { return result_; }
    void setResult(uint32_t number) { result_ = number; }
    uint32_t getError() const { return error_; }
    void setError(uint32_t number) { error_ = number; }

    // What came of the check of a text: empty (checked and good), "NODIGEST" (not checked) or
    // "REJECTED".
    const SoString& getDigestState() const { return digestState_; }

    // Gives the header `name` (compared exactly) this value: the first of that name, or a new one
    // in front of all others. A null or empty name is ignored. The text of a message has a line for
    // each header, which ends at a line feed: one in the name or the value, or a colon in the name,
    // arrives as something else. It is the caller's to leave them out; the body may hold them.
    void setHeader(const char* name, const char* value);
    // The same with the number in decimal.
    void setHeader(const char* name, long value);
    void setHeader(const char* name, unsigned long value);
    // Deletes the first header of that name, if there is one.
    void removeHeader(const char* name);
    // The value of the first header of that name, or empty.
    SoString getUserHeaderValue(const char* name) const;
    // The headers, newest first; null without any. Good until the next change of the list.
    const Header* getHeaders() const { return headers_; }

    // True when the type is none of the layer's own, compared exactly.
    bool isUserType() const;
    // The next serial number of `context`, null for the current one; 0 without a context.
    uint32_t getNextSerialNumber(ConveyContext* context) const;
    // Always false: a message that fails the check is delivered all the same, and its digest state
    // tells those who care.
    bool isRejected() const { return false; }

    // Whether a text said that this message answers another one. Its number is then that one's, and
    // its type begins with the kind of the answer.
    bool isReply() const { return isReply_; }
    // What tells the asking process's life from those before and after it under the same name, in a
    // request and in what answers it; 0 for none. Handlers have no use for it.
    uint64_t getAskersLife() const { return askersLife_; }
    void setAskersLife(uint64_t life) { askersLife_ = life; }

    // The switches of the text form; see MessageGlobals.
    static void setAuthentication(bool on);
    static bool getAuthentication();
    static void setCreateDigest(bool on);
    static bool getCreateDigest();

    // Appends the message's text to `out`, with a digest line when that is switched on. False, and
    // nothing appended, without a target or a sender.
    bool writeToString(SoString& out) const;

    // A message's text as it is sent: a small one in one piece, the body of a large one from where
    // it is, so that it is good while that body is, and with a digest that is made while it is
    // sent. Copies share the digest: one of them at a time is sent. Empty at first.
    class SO_EXPORT Text {
    public:
        // False, and the text stays as it is, without a target or a sender.
        [[nodiscard]] bool write(const Message& message);
        bool isLarge() const { return !body_.empty(); }
        int64_t length() const { return head_.length() + static_cast<int64_t>(body_.size()); }
        platform::PortPieces pieces() const;

    private:
        SoString head_;
        std::string_view body_;
        std::shared_ptr<platform::PortSeal> seal_; // of a large one; null without a digest
    };

    // Fills the message from the first message of `text` and returns where the next one begins: at
    // the first byte behind the body that is no line feed. Never fails: what is no header line
    // becomes a user header, what is no number 0, and a body that is announced longer than the text
    // ends with it. A message that has a target already is cleared first.
    const char* readFromString(const char* text);
    // The same for the message at `offset` of a text that is not needed any more; returns the
    // offset of the next one. A large body that ends the text is not copied: it takes over the
    // text's buffer, and the text is empty then.
    int32_t readFromString(SoString& text, int32_t offset);

    // Reads the messages of a text in as many steps as its reader likes, so that a text that takes
    // long keeps nobody waiting. Owns the text. One thread at a time.
    class SO_EXPORT Reader {
    public:
        // Takes over the text.
        explicit Reader(SoString&& text);
        // One that came in two pieces, as it was sent: when the first has the lines of its only
        // message, the second is the body at once. `mayHaveZero`: false when it has no NUL byte.
        // `sealBytes`: of the line with a digest of all that follows at its beginning, which is
        // known to fit; 0 for none.
        Reader(SoString&& text, SoString&& rest, bool mayHaveZero, size_t sealBytes = 0);
        ~Reader();
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        // Reads on for about `bytes` (above 0), a NUL byte as a line feed. True when `message`
        // holds the next message of the text; else it is to be given again, unread.
        bool read(Message& message, size_t bytes);
        // True when there is nothing left to read.
        bool isAtEnd() const { return position_ >= text_.length(); }
        // Bytes of memory that the text costs.
        int64_t costBytes() const { return text_.heapBytes() + rest_.heapBytes(); }

    private:
        bool prepare(size_t bytes);

        SoString text_;
        SoString rest_; // empty when the text is in one piece
        bool mayHaveZero_ = true;
        size_t sealBytes_ = 0;
        bool isPrepared_ = false;
        size_t cleaned_ = 0;               // bytes of both that were looked through for NUL bytes
        int32_t position_ = 0;             // where the next message begins
        std::unique_ptr<ReadState> state_; // of the one that is being read
    };

    // Replaces `out` by the message as a person reads it, under a heading with `label`. True.
    bool logToString(const char* label, SoString& out, bool withBody) const;

    // Bytes of memory that the message costs whoever keeps it: the object with its lock, the
    // buffers of its texts and its headers, and what the heap adds to each block. An empty message
    // that was read costs about 1 KiB. Changes with the message: who charges it to an account keeps
    // what was charged. Constant time but for the headers.
    int64_t costBytes() const;

    // Appends the message's rows of the diagnostics text under the path `root`.
    void appendDiagnostics(SoString& out, const SoString& root) const;

private:
    bool hasOldFormat() const;
    Header* findHeader(std::string_view name) const;
    void setHeaderLocked(std::string_view name, std::string_view value) SO_REQUIRES(this);
    Header* addHeaderLocked(std::string_view name, std::string_view value) SO_REQUIRES(this);
    void clearLocked() SO_REQUIRES(this);
    void deleteHeaders();
    const char* readLocked(const char* text, SoString* owner) SO_REQUIRES(this);
    void beginReading() SO_REQUIRES(this);
    bool readOnLocked(ReadState& state, size_t bytes) SO_REQUIRES(this);
    const char* takeBodyLocked(const ReadState& state, SoString* owner) SO_REQUIRES(this);
    void finishReading();
    bool readHeadersLocked(ReadState& state, size_t bytes) SO_REQUIRES(this);
    void takeLineLocked(ReadState& state, std::string_view name, std::string_view value)
        SO_REQUIRES(this);
    void takeHeaderLocked(ReadState& state, std::string_view name, std::string_view value)
        SO_REQUIRES(this);
    bool checkDigest(ReadState& state, size_t bytes);
    void applyReplyTyping();
    int32_t bodyLength() const { return body_.length(); }
    template <class Use>
    void forEachReply(Use&& use) const;
    char* writeLines(SoString& out, size_t bodyBytes, bool withDigest) const;
    size_t roomForHeaders() const;
    char* writeHeaders(char* place) const;

    SoString target_;
    SoString sender_;
    uint32_t timeout_ = 0;
    SoString type_;
    SoString responseRequest_;
    uint32_t timestamp_;
    uint32_t contentLength_ = 0;
    uint32_t serialNumber_ = 0;
    uint32_t received_ = ConveyData::CV_INVALID_MESSAGE_NUMBER;
    uint32_t result_ = ConveyData::CV_INVALID_MESSAGE_NUMBER;
    uint32_t error_ = ConveyData::CV_INVALID_MESSAGE_NUMBER;
    uint64_t askersLife_ = 0;
    bool isReply_ = false;
    Header* headers_ = nullptr;
    SoString body_;
    SoString version_;
    SoString digestState_;
};

// What an application hands to the layer to be called with messages: the reply to one message, or
// all messages of a type. Owned by whoever it is registered with. The layer calls it with no lock
// of its own held, on the thread that pumps.
class SO_EXPORT Convey::MsgHandler : public SoHeap {
public:
    // Called once when the handler is installed with a new instance. Does nothing.
    virtual void initialize(Convey* instance);

    // Handles a message. `event` tells its kind (`CV_EVENT_...` in SoCVWords.h), `result`, null for
    // none, takes the text to answer with. 0 for success, else an error code for the sender.
    virtual int32_t handleMessage(int event, Message& message, SoString* result) = 0;

    // The type that it handles; empty for any.
    virtual SoString getMsgType() const;

    // The one message whose replies it waits for; CV_INVALID_MESSAGE_NUMBER for any.
    virtual uint32_t getSerialNumber() const;
};

} // namespace ScObjects
