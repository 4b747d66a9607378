#include "c/include/convey.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "c/Shown.h"
#include "limits/Limits.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoConvey.h"

// Each function is the one of the C++ interface with its arguments checked; what is thrown there
// for want of memory ends here.

using namespace ScObjects;
using namespace ScObjects::ConveyData;
using Outcome = Convey::Outcome;

static_assert(CONVEY_RESULT == Outcome::kResult && CONVEY_ERROR == Outcome::kError &&
              CONVEY_TIMEOUT == Outcome::kTimeout && CONVEY_NOT_RUNNING == Outcome::kNotRunning &&
              CONVEY_NOT_INSTALLED == Outcome::kNotInstalled &&
              CONVEY_REFUSED == Outcome::kRefused && CONVEY_CANCELLED == Outcome::kCancelled);
static_assert(CONVEY_CODE_REJECTED == CV_CODE_REJECTED && CONVEY_CODE_NOT_SENT == CV_CODE_NOT_SENT &&
              CONVEY_CODE_HANDLER_FAILED == CV_CODE_HANDLER_FAILED &&
              CONVEY_CODE_TARGET_ENDED == CV_CODE_TARGET_ENDED &&
              CONVEY_CODE_OUT_OF_MEMORY == CV_CODE_OUT_OF_MEMORY &&
              CONVEY_CODE_NOT_ANSWERED == CV_CODE_NOT_ANSWERED &&
              CONVEY_CODE_TOO_MANY_OWED == CV_CODE_TOO_MANY_OWED &&
              CONVEY_CODE_NOT_HANDLED == CV_CODE_NOT_HANDLED);
static_assert(std::string_view(CONVEY_TYPE_PLAIN) == CV_TYPE_PLAIN &&
              std::string_view(CONVEY_TYPE_LOG) == CV_TYPE_LOG);

struct convey_application {
    explicit convey_application(const char* specifier)
        : messenger(specifier), name(messenger.name()) {}

    Convey::Messenger messenger;
    const SoString name;
};

struct convey_reply {
    Convey::Reply reply;
};

struct convey_request {
    convey_request(convey_application& of, const SoString& target, const SoString& body)
        : request(of.messenger.request(target, body)) {}

    Convey::Request request;
};

struct convey_pending {
    Convey::Pending pending;
};

struct convey_list {
    std::vector<std::string> texts;
};

namespace {

// What `operation` gives, or `neutral`.
template <class Value, class Operation>
Value guarded(Value neutral, Operation&& operation) noexcept {
    try {
        return operation();
    } catch (...) { // for want of memory; into C goes nothing, whatever it is
        return neutral;
    }
}

template <class Operation>
int done(Operation&& operation) noexcept {
    return guarded(0, [&] { return operation(), 1; });
}

bool isTooLong(size_t length) {
    return length > static_cast<size_t>(limits::of("string.length"));
}

SoString textOf(const char* text, size_t length) {
    return text == nullptr ? SoString() : SoString(text, static_cast<int32_t>(length));
}

// A text of the caller's.
char* handedOver(const SoString& text) {
    const auto bytes = static_cast<size_t>(text.length()) + 1;
    auto* const copy = static_cast<char*>(std::malloc(bytes));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), bytes);
    }
    return copy;
}

// The caller's data beside the function that it is for, until that goes.
class Data {
public:
    Data(void* data, convey_data_function free) : data_(data), free_(free) {}
    ~Data() {
        if (free_ != nullptr) {
            free_(data_);
        }
    }
    void freeWith(convey_data_function free) { free_ = free; }
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    void* get() const { return data_; }

private:
    void* const data_;
    convey_data_function free_;
};

// Null, and the data given back, without memory for the note of it.
std::shared_ptr<Data> keep(void* data, convey_data_function free) noexcept {
    try {
        return std::make_shared<Data>(data, free);
    } catch (const std::bad_alloc&) {
        if (free != nullptr) {
            free(data);
        }
        return nullptr;
    }
}

Convey::Request::Done telling(convey_outcome_function function, const std::shared_ptr<Data>& kept) {
    return [function, kept](const Outcome& outcome) {
        if (function != nullptr) {
            const convey_outcome how(outcome);
            function(&how, kept->get());
        }
    };
}

} // namespace

const char* convey_version(void) {
    return CONVEY_LIBRARY_VERSION;
}

convey_application* convey_application_new(const char* specifier) {
    return guarded<convey_application*>(nullptr, [&]() -> convey_application* {
        if (Convey::Specifier(given(specifier), false).appName().isEmpty()) {
            return nullptr;
        }
        return std::make_unique<convey_application>(specifier).release();
    });
}

void convey_application_free(convey_application* application) {
    delete application;
}

int convey_application_is_reachable(const convey_application* application) {
    return application != nullptr && application->messenger.isReachable() ? 1 : 0;
}

const char* convey_application_name(const convey_application* application) {
    return application == nullptr ? "" : application->name.c_str();
}

int convey_application_on(convey_application* application, const char* type,
                          convey_message_function function, void* data,
                          convey_data_function free_data) {
    const auto kept = keep(data, free_data);
    if (application == nullptr || function == nullptr || kept == nullptr) {
        return 0;
    }
    return done([&] {
        application->messenger.on(
            given(type), [function, kept](const Convey::Message& message, Convey::Reply reply) {
                auto handle = std::make_unique<convey_reply>(); // without it: an error for the asker
                handle->reply = std::move(reply);
                function(shown(&message), handle.release(), kept->get());
            });
    });
}

int convey_application_off(convey_application* application, const char* type) {
    return guarded(0, [&] {
        return application != nullptr && application->messenger.off(given(type)) ? 1 : 0;
    });
}

int convey_poll_descriptor(void) {
    return Convey::getPollDescriptor();
}

int convey_pump(void) {
    return Convey::pump(kProcessBoth) ? 1 : 0;
}

int convey_pump_or_wait(unsigned int milliseconds) {
    return Convey::pumpOrWait(milliseconds) ? 1 : 0;
}

int convey_run(void) {
    return Convey::run();
}

void convey_quit(void) {
    Convey::quit();
}

int convey_reply_result(convey_reply* reply, const char* text, size_t length) {
    const std::unique_ptr<convey_reply> owned(reply);
    return guarded(0, [&] {
        if (owned == nullptr || isTooLong(length)) {
            return 0; // the end of the handle answers
        }
        return owned->reply.result(textOf(text, length)) ? 1 : 0;
    });
}

int convey_reply_error(convey_reply* reply, int code, const char* text) {
    const std::unique_ptr<convey_reply> owned(reply);
    return guarded(0, [&] { return owned != nullptr && owned->reply.error(code, text) ? 1 : 0; });
}

void convey_reply_drop(convey_reply* reply) {
    delete reply;
}

int convey_reply_is_open(const convey_reply* reply) {
    return reply != nullptr && reply->reply.isOpen() ? 1 : 0;
}

convey_request* convey_request_new(convey_application* application, const char* target,
                                   const char* body, size_t length) {
    return guarded<convey_request*>(nullptr, [&]() -> convey_request* {
        return application == nullptr || isTooLong(length)
                   ? nullptr
                   : std::make_unique<convey_request>(*application, given(target),
                                                      textOf(body, length))
                         .release();
    });
}

void convey_request_free(convey_request* request) {
    delete request;
}

int convey_request_set_type(convey_request* request, const char* type) {
    return request == nullptr ? 0 : done([&] { request->request.type(given(type)); });
}

int convey_request_set_header(convey_request* request, const char* name, const char* value) {
    return request == nullptr ? 0 : done([&] { request->request.header(given(name), given(value)); });
}

int convey_request_set_launch(convey_request* request, const char* parameters) {
    return request == nullptr ? 0 : done([&] { request->request.launch(given(parameters)); });
}

int convey_request_set_timeout(convey_request* request, unsigned int milliseconds) {
    return request == nullptr ? 0 : done([&] {
        request->request.within(std::chrono::milliseconds(milliseconds));
    });
}

int convey_request_try_send(convey_request* request, convey_outcome_function function, void* data,
                            convey_data_function free_data, convey_pending** pending) {
    if (request == nullptr || pending == nullptr) {
        return 0;
    }
    return guarded(0, [&] {
        auto handle = std::make_unique<convey_pending>();
        const auto kept = std::make_shared<Data>(data, nullptr);
        request->request.onOutcome(telling(function, kept));
        kept->freeWith(free_data); // from here on nothing throws
        if (!request->request.trySend(handle->pending)) {
            kept->freeWith(nullptr);
            request->request.onOutcome(nullptr);
            return 0;
        }
        *pending = handle.release();
        delete request;
        return 1;
    });
}

convey_pending* convey_request_send(convey_request* request, convey_outcome_function function,
                                    void* data, convey_data_function free_data) {
    const std::unique_ptr<convey_request> owned(request);
    const auto kept = keep(data, free_data);
    const auto tell = telling(function, kept);
    if (owned == nullptr || kept == nullptr) {
        return nullptr;
    }
    try {
        auto handle = std::make_unique<convey_pending>();
        owned->request.onOutcome(tell);
        handle->pending = owned->request.send();
        return handle.release();
    } catch (const std::bad_alloc&) { // before it was sent, which throws nothing
        tell(Outcome(Outcome::kError, CV_CODE_OUT_OF_MEMORY, SoString()));
        return nullptr;
    }
}

void convey_pending_cancel(convey_pending* pending) {
    delete pending;
}

void convey_pending_release(convey_pending* pending) {
    const std::unique_ptr<convey_pending> owned(pending);
    if (owned != nullptr) {
        owned->pending.detach();
    }
}

int convey_pending_is_open(const convey_pending* pending) {
    return pending != nullptr && pending->pending.isOpen() ? 1 : 0;
}

convey_outcome* convey_request_wait(convey_request* request) {
    const std::unique_ptr<convey_request> owned(request);
    return guarded<convey_outcome*>(nullptr, [&]() -> convey_outcome* {
        return owned == nullptr
                   ? nullptr
                   : std::make_unique<convey_outcome>(owned->request.wait()).release();
    });
}

void convey_outcome_free(convey_outcome* outcome) {
    delete outcome;
}

int convey_request_post(convey_request* request) {
    const std::unique_ptr<convey_request> owned(request);
    return guarded(0, [&] { return owned != nullptr && owned->request.post() ? 1 : 0; });
}

int convey_request_try_post(convey_request* request) {
    if (request == nullptr || !request->request.tryPost()) {
        return 0;
    }
    delete request;
    return 1;
}

convey_list* convey_applications(void) {
    return guarded<convey_list*>(nullptr, [&] {
        auto list = std::make_unique<convey_list>();
        if (const ConveyConnector* const connector = ConveyConnector::get()) {
            const int32_t count = connector->getNumberOfRegisteredApplications();
            for (int32_t i = 0; i < count; ++i) {
                list->texts.emplace_back(connector->getApplicationSpecifier(i).view());
            }
        }
        return list.release();
    });
}

size_t convey_list_count(const convey_list* list) {
    return list == nullptr ? 0 : list->texts.size();
}

const char* convey_list_at(const convey_list* list, size_t index) {
    return index < convey_list_count(list) ? list->texts[index].c_str() : "";
}

void convey_list_free(convey_list* list) {
    delete list;
}

char* convey_resolve(const char* specifier) {
    return guarded<char*>(
        nullptr, [&] { return handedOver(Convey::Specifier(given(specifier), true)); });
}

char* convey_path(const char* specifier) {
    return guarded<char*>(nullptr, [&] {
        return handedOver(Convey::Specifier(given(specifier), true).getApplicationPath(nullptr));
    });
}

void convey_text_free(char* text) {
    std::free(text);
}

int convey_is_installed(const char* specifier) {
    return guarded(0, [&] { return Convey::Specifier(given(specifier), true).isInstalled() ? 1 : 0; });
}

int convey_is_running(const char* specifier) {
    return guarded(0, [&] { return Convey::targetIsRunning(given(specifier)) ? 1 : 0; });
}

char* convey_ping(const char* specifier, const char* key, int seconds, const char* parameters) {
    return guarded<char*>(nullptr, [&] {
        const SoString along(given(parameters));
        return handedOver(Convey::Thread::ping(given(specifier), key, seconds,
                                               parameters == nullptr ? nullptr : &along));
    });
}

int convey_launch(const char* specifier, const char* parameters, int behind) {
    return Convey::launchTarget(given(specifier), given(parameters), behind == 0 ? 0 : 1, nullptr);
}

int convey_front(const char* specifier) {
    return Convey::bringToFront(given(specifier), nullptr) ? 1 : 0;
}

char* convey_launch_options(void) {
    return guarded<char*>(nullptr, [] { return handedOver(Convey::getLaunchOptions()); });
}

char* convey_diagnostics(void) {
    return guarded<char*>(nullptr, [] {
        SoString text;
        Convey::getDiagnostics(text, true);
        return handedOver(text);
    });
}
