#include "scriptobjects/convey/SoCVMessage.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <utility>

#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

constexpr std::string_view kTextVersion = "2.05";
constexpr std::string_view kPlainType = CV_TYPE_PLAIN;

// The types that the layer gives a meaning to.
constexpr std::array<std::string_view, 12> kSystemTypes = {
    CV_TYPE_PLAIN,  CV_TYPE_DEBUG,   CV_TYPE_RECEIVE,   CV_TYPE_RECEIVED,
    CV_TYPE_RESULT, CV_TYPE_ERROR,   CV_TYPE_IDLE,      CV_TYPE_TIMEOUT,
    CV_TYPE_LOG,    CV_TYPE_WATCHER, CV_TYPE_PROCESSED, CV_TYPE_LAUNCHED};

// What the heap adds to a block, and the blocks of a message's lock.
constexpr int64_t kBlockBytes = 16;
constexpr int64_t kLockBytes = 96;

int64_t costOf(const SoString& text) {
    return text.heapBytes() == 0 ? 0 : text.heapBytes() + kBlockBytes;
}

std::string_view viewOf(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

} // namespace

Convey::Header::Header(std::string_view headerName, std::string_view headerValue)
    : name(headerName), value(headerValue) {}

Convey::Message::Message()
    : type_(kPlainType), timestamp_(ConveyUtils::getTimeSeconds()), version_(kTextVersion) {}

Convey::Message::Message(const Message& other) : Message(other, SoString(other.body_)) {}

// Without the lock, which the helper asks for: nobody else knows the copy yet.
Convey::Message::Message(const Message& other, SoString&& body) SO_NO_THREAD_SAFETY_ANALYSIS
    : target_(other.target_),
      sender_(other.sender_),
      timeout_(other.timeout_),
      type_(other.type_.isEmpty() ? SoString(CV_TYPE_PLAIN) : other.type_),
      responseRequest_(other.responseRequest_),
      timestamp_(other.timestamp_),
      contentLength_(other.contentLength_),
      serialNumber_(other.serialNumber_),
      received_(other.received_),
      result_(other.result_),
      error_(other.error_),
      askersLife_(other.askersLife_),
      isReply_(other.isReply_),
      body_(std::move(body)),
      version_(other.version_),
      digestState_(other.digestState_) {
    try {
        for (const Header* header = other.headers_; header != nullptr; header = header->next) {
            (void)addHeaderLocked(header->name.view(), header->value.view()); // names differ
        }
    } catch (...) {
        // A constructor that throws has no destructor behind it.
        deleteHeaders();
        throw;
    }
}

Convey::Message::~Message() {
    deleteHeaders();
}

void Convey::Message::deleteHeaders() {
    while (headers_ != nullptr) {
        Header* const header = headers_;
        headers_ = header->next;
        delete header;
    }
}

Convey::Header* Convey::Message::findHeader(std::string_view name) const {
    Header* header = headers_;
    while (header != nullptr && header->name.view() != name) {
        header = header->next;
    }
    return header;
}

void Convey::Message::setHeaderLocked(std::string_view name, std::string_view value) {
    if (name.empty()) {
        return;
    }
    if (Header* const header = findHeader(name)) {
        header->value.assign(value);
        return;
    }
    (void)addHeaderLocked(name, value);
}

Convey::Header* Convey::Message::addHeaderLocked(std::string_view name, std::string_view value) {
    // In front: a text has the newest header first, and no walk to the end is needed.
    auto* const header = new Header(name, value);
    header->next = headers_;
    headers_ = header;
    return header;
}

void Convey::Message::setHeader(const char* name, const char* value) {
    const ObjectLock guard(*this);
    setHeaderLocked(viewOf(name), viewOf(value));
}

void Convey::Message::setHeader(const char* name, long value) {
    // Room for the digit that digits10 leaves out, a sign and the zero byte. `long` has two widths.
    char digits[std::numeric_limits<long>::digits10 + 3];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    setHeader(name, digits);
}

void Convey::Message::setHeader(const char* name, unsigned long value) {
    char digits[std::numeric_limits<unsigned long>::digits10 + 3];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    setHeader(name, digits);
}

void Convey::Message::removeHeader(const char* name) {
    const std::string_view wanted = viewOf(name);
    const ObjectLock guard(*this);
    // Along the links, so that the first header needs no case of its own.
    Header** link = &headers_;
    while (*link != nullptr && (*link)->name.view() != wanted) {
        link = &(*link)->next;
    }
    if (Header* const header = *link) {
        *link = header->next;
        delete header;
    }
}

SoString Convey::Message::getUserHeaderValue(const char* name) const {
    const Header* const header = findHeader(viewOf(name));
    return header == nullptr ? SoString() : header->value;
}

int64_t Convey::Message::costBytes() const {
    // With the headers: a text of a few bytes for each costs its keeper a hundred times as much.
    // Buffers count whole, since a text of one byte holds a step.
    int64_t bytes = static_cast<int64_t>(sizeof(Message)) + kBlockBytes + kLockBytes;
    for (const SoString* text :
         {&target_, &sender_, &type_, &responseRequest_, &body_, &version_, &digestState_}) {
        bytes += costOf(*text);
    }
    for (const Header* header = headers_; header != nullptr; header = header->next) {
        bytes += static_cast<int64_t>(sizeof(Header)) + kBlockBytes + costOf(header->name) +
                 costOf(header->value);
    }
    return bytes;
}

bool Convey::Message::isUserType() const {
    // Byte for byte: "debug" is a user type.
    return std::find(kSystemTypes.begin(), kSystemTypes.end(), type_.view()) == kSystemTypes.end();
}

void Convey::Message::setAuthentication(bool on) {
    ConveyData::MessageGlobals::get()->setAuthentication(on);
}

bool Convey::Message::getAuthentication() {
    return ConveyData::MessageGlobals::get()->getAuthentication();
}

void Convey::Message::setCreateDigest(bool on) {
    ConveyData::MessageGlobals::get()->setCreateDigest(on);
}

bool Convey::Message::getCreateDigest() {
    return ConveyData::MessageGlobals::get()->getCreateDigest();
}

void Convey::MsgHandler::initialize(Convey* /*instance*/) {}

SoString Convey::MsgHandler::getMsgType() const {
    return SoString();
}

uint32_t Convey::MsgHandler::getSerialNumber() const {
    return ConveyData::CV_INVALID_MESSAGE_NUMBER;
}

} // namespace ScObjects
