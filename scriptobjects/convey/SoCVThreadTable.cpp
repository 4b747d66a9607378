// The table of the background thread: what it answers pings with.
#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

constexpr int32_t kMaximumTextBytes = limits::of("thread.key");
constexpr int64_t kMaximumTableBytes = limits::of("thread.table");

// By which keys expire, whoever sets the time of day.
uint32_t getSteadySeconds() {
    return static_cast<uint32_t>(ConveyUtils::getSteadyMilliseconds() / 1000);
}

} // namespace

// Looked through in its order: `locateKey` gives out places in it, and it is short.
const ConveyThread::PingData* ConveyThread::findLocked(const SoString& key) const {
    const auto found = std::find_if(table_.begin(), table_.end(),
                                    [&key](const PingData& data) { return data.key == key; });
    return found == table_.end() ? nullptr : &*found;
}

// That of the key, whose entry in the table this is, if it has one.
SoString ConveyThread::valueLocked(const SoString& key, const PingData* data) const {
    if (const char* const status = status_.load(); status != nullptr && key == CV_STATUS) {
        return status;
    }
    return data == nullptr ? SoString() : data->value;
}

// Before the table changes, so that what the host has said comes before that.
void ConveyThread::settleStatusLocked() {
    if (const char* const status = status_.exchange(nullptr)) {
        (void)setLocked(CV_STATUS, status);
    }
}

ConveyThread::PingData* ConveyThread::findToChangeLocked(const SoString& key) {
    settleStatusLocked();
    const PingData* const data = findLocked(key);
    return data == nullptr ? nullptr : &table_[static_cast<size_t>(data - table_.data())];
}

ConveyThread::PingData* ConveyThread::findOrAddLocked(const SoString& key) {
    if (PingData* data = findToChangeLocked(key)) {
        return data;
    }
    // Any process of the user may set keys by a ping. A full table still takes new values for the
    // keys that it has.
    if (key.isEmpty() || table_.size() >= kMaximumKeys) {
        return nullptr;
    }
    PingData added;
    added.key = key; // before it is in the table, which must not get a row without a key
    table_.push_back(std::move(added));
    return &table_.back();
}

bool ConveyThread::setKeyValuePair(const SoString& key, const SoString& value) {
    const ObjectLock guard(*this);
    return setLocked(key, value);
}

bool ConveyThread::setLocked(const SoString& key, const SoString& value) {
    if (key.length() > kMaximumTextBytes || value.length() > kMaximumTextBytes) {
        return false;
    }
    PingData* data = findToChangeLocked(key);
    const int32_t before = data == nullptr ? -key.length() : data->value.length();
    // What takes no more room needs no look at all.
    if (value.length() > before) {
        int64_t bytes = int64_t{value.length()} - before;
        for (const PingData& other : table_) {
            bytes += int64_t{other.key.length()} + other.value.length();
        }
        if (bytes > kMaximumTableBytes) {
            return false;
        }
    }
    data = data != nullptr ? data : findOrAddLocked(key);
    if (data != nullptr) {
        data->value = value;
    }
    return data != nullptr;
}

SoString ConveyThread::getValueForKey(const SoString& key) const {
    const ObjectLock guard(*this);
    return valueLocked(key, findLocked(key));
}

int32_t ConveyThread::locateKey(const SoString& key) const {
    const ObjectLock guard(*this);
    const PingData* const data = findLocked(key);
    return data == nullptr ? -1 : static_cast<int32_t>(data - table_.data());
}

bool ConveyThread::setHandler(const SoString& key, Convey::MsgHandler* handler) {
    // Also when the table is full, since it is owned from the call on. A destructor is the host's
    // code: it runs with no lock held.
    std::shared_ptr<Convey::MsgHandler> replaced(
        handler); // deleted when the lock has been given up
    const ObjectLock guard(*this);
    PingData* const data = findOrAddLocked(key);
    if (data != nullptr) {
        data->handler.swap(replaced);
    }
    return data != nullptr;
}

std::shared_ptr<Convey::MsgHandler> ConveyThread::handlerFor(const SoString& key) const {
    const ObjectLock guard(*this);
    const PingData* const data = findLocked(key);
    return data == nullptr ? nullptr : data->handler;
}

Convey::MsgHandler* ConveyThread::findHandler(const SoString& key) const {
    return handlerFor(key).get();
}

bool ConveyThread::callHandler(const SoString& key, Convey::Message& message,
                               SoString& answer) const {
    const auto handler = handlerFor(key); // stays alive when it is replaced meanwhile
    if (handler == nullptr) {
        return false;
    }
    (void)ConveyData::callHandler(*handler, 1, message, &answer);
    return true;
}

bool ConveyThread::setTimeout(const SoString& key, int32_t seconds) {
    const ObjectLock guard(*this);
    PingData* const data = findToChangeLocked(key);
    if (data != nullptr) {
        data->expiry = getSteadySeconds() + static_cast<uint32_t>(seconds);
        noteDue(int64_t{data->expiry} * 1000);
    }
    return data != nullptr;
}

void ConveyThread::removeExpiredPingData() {
    const uint32_t seconds = getSteadySeconds();
    std::vector<PingData> expired; // deleted when the lock has been given up
    const ObjectLock guard(*this);
    settleStatusLocked();
    // From the end, so that taking one out moves none that is still to be looked at.
    for (size_t i = table_.size(); i-- > 0;) {
        if (table_[i].expiry != 0 && table_[i].expiry <= seconds) {
            expired.push_back(std::move(table_[i]));
            table_.erase(table_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

// Keys and values are what pings have set them to; the rows clean both.
void ConveyThread::appendEntry(CVDiagnosticsRows& rows, const PingData& data,
                               const SoString& value) {
    const std::string name = "/" + std::string(data.key.view());
    rows.node(name, data.key.view(), value);
    if (data.expiry != 0) {
        const uint32_t seconds = getSteadySeconds();
        const uint32_t left = data.expiry > seconds ? data.expiry - seconds : 0;
        const uint32_t date = ConveyUtils::getTimeSeconds() + left; // as a clock shows it then
        rows.leaf(name + "/timeout", "Timeout", "in ", left, " secs at ",
                  ConveyUtils::getTimeString(&date));
    } else {
        rows.undefined(name + "/timeout", "Timeout");
    }
    if (data.handler != nullptr) {
        rows.leaf(name + "/msghandler", "Handler", "installed");
    } else {
        rows.undefined(name + "/msghandler", "Handler");
    }
}

} // namespace ScObjects
