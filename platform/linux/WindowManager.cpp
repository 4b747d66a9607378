#include "platform/linux/WindowManager.h"

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <xcb/xcb.h>

#include "limits/Limits.h"
#include "platform/linux/RunTimeLibrary.h"

namespace platform {
namespace {

constexpr uint32_t kMaximumWindows = limits::of("desktop.windows");
constexpr uint32_t kFromPager = 2; // the user's wish: window managers grant it
constexpr std::chrono::seconds kTurn{2};
constexpr uint32_t kMaximumNameWords = limits::of("desktop.machine-name");

// Taken at run time: a machine without a display does not have it, and does not need it.
struct Xcb {
    decltype(&xcb_connect) connect = nullptr;
    decltype(&xcb_disconnect) disconnect = nullptr;
    decltype(&xcb_connection_has_error) hasError = nullptr;
    decltype(&xcb_get_setup) setup = nullptr;
    decltype(&xcb_setup_roots_iterator) roots = nullptr;
    decltype(&xcb_screen_next) nextScreen = nullptr;
    decltype(&xcb_intern_atom) internAtom = nullptr;
    decltype(&xcb_intern_atom_reply) internAtomReply = nullptr;
    decltype(&xcb_get_property) getProperty = nullptr;
    decltype(&xcb_get_property_reply) getPropertyReply = nullptr;
    decltype(&xcb_get_property_value) propertyValue = nullptr;
    decltype(&xcb_get_property_value_length) propertyLength = nullptr;
    decltype(&xcb_change_window_attributes) changeAttributes = nullptr;
    decltype(&xcb_send_event) sendEvent = nullptr;
    decltype(&xcb_flush) flush = nullptr;
    decltype(&xcb_poll_for_event) pollForEvent = nullptr;
    decltype(&xcb_get_file_descriptor) descriptor = nullptr;
    bool usable = false;

    Xcb() {
        const RunTimeLibrary library({"libxcb.so.1"});
        usable = library.get("xcb_connect", connect) && library.get("xcb_disconnect", disconnect) &&
                 library.get("xcb_connection_has_error", hasError) &&
                 library.get("xcb_get_setup", setup) &&
                 library.get("xcb_setup_roots_iterator", roots) &&
                 library.get("xcb_screen_next", nextScreen) &&
                 library.get("xcb_intern_atom", internAtom) &&
                 library.get("xcb_intern_atom_reply", internAtomReply) &&
                 library.get("xcb_get_property", getProperty) &&
                 library.get("xcb_get_property_reply", getPropertyReply) &&
                 library.get("xcb_get_property_value", propertyValue) &&
                 library.get("xcb_get_property_value_length", propertyLength) &&
                 library.get("xcb_change_window_attributes", changeAttributes) &&
                 library.get("xcb_send_event", sendEvent) && library.get("xcb_flush", flush) &&
                 library.get("xcb_poll_for_event", pollForEvent) &&
                 library.get("xcb_get_file_descriptor", descriptor);
    }
    static const Xcb& instance() {
        static const auto* const xcb = new Xcb;
        return *xcb;
    }
};

// One thread connects at a time: the library that finds the display's key works in a buffer that
// all share.
class Turn {
public:
    Turn() {
        State& s = state();
        std::unique_lock<std::mutex> lock(s.mutex);
        // Not a mutex that waits with a limit: the thread sanitizer does not know how that is
        // locked.
        isOurs_ = s.free.wait_for(lock, kTurn, [&s] { return !s.taken; });
        s.taken = true;
    }
    ~Turn() {
        if (isOurs_) {
            State& s = state();
            const std::lock_guard<std::mutex> guard(s.mutex);
            s.taken = false;
            s.free.notify_one();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool isOurs() const { return isOurs_; }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable free;
        bool taken = false;
    };
    static State& state() {
        static auto* const state = new State;
        return *state;
    }
    bool isOurs_ = false;
};

struct FreeReply {
    void operator()(void* reply) const { std::free(reply); } // as the library asks
};
template <class Reply>
using ReplyPointer = std::unique_ptr<Reply, FreeReply>;

std::string machineName() {
    char name[HOST_NAME_MAX + 1] = "";
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

} // namespace

struct WindowManager::Connection {
    const Xcb& xcb = Xcb::instance();
    xcb_connection_t* display = nullptr;
    xcb_window_t root = XCB_WINDOW_NONE;
    xcb_atom_t active = XCB_ATOM_NONE;
    xcb_atom_t clients = XCB_ATOM_NONE;
    xcb_atom_t restack = XCB_ATOM_NONE;
    xcb_atom_t process = XCB_ATOM_NONE;
    xcb_atom_t check = XCB_ATOM_NONE;
    const std::string machine = machineName();

    Connection() = default;
    ~Connection() {
        if (display != nullptr) {
            xcb.disconnect(display);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    xcb_atom_t atom(const char* name) const {
        const auto length = static_cast<uint16_t>(std::strlen(name));
        const ReplyPointer<xcb_intern_atom_reply_t> reply(
            xcb.internAtomReply(display, xcb.internAtom(display, 0, length, name), nullptr));
        return reply == nullptr ? static_cast<xcb_atom_t>(XCB_ATOM_NONE) : reply->atom;
    }

    ReplyPointer<xcb_get_property_reply_t> property(xcb_window_t window, xcb_atom_t name,
                                                    xcb_atom_t type, uint32_t words) const {
        return ReplyPointer<xcb_get_property_reply_t>(xcb.getPropertyReply(
            display, xcb.getProperty(display, 0, window, name, type, 0, words), nullptr));
    }

    // Numbers of 32 bits; empty when the property is not of that form.
    std::vector<uint32_t> numbers(xcb_window_t window, xcb_atom_t name, xcb_atom_t type,
                                  uint32_t maximum) const {
        const auto reply = property(window, name, type, maximum);
        std::vector<uint32_t> values;
        // Any program may set a property to anything; only what has the agreed form is taken.
        if (reply != nullptr && reply->type == type && reply->format == 32) {
            values.resize(static_cast<size_t>(xcb.propertyLength(reply.get())) / sizeof(uint32_t));
            if (!values.empty()) {
                std::memcpy(values.data(), xcb.propertyValue(reply.get()),
                            values.size() * sizeof(uint32_t));
            }
        }
        return values;
    }

    // A window of another machine's process may carry any number.
    bool isOfThisMachine(xcb_window_t window) const {
        const auto reply =
            property(window, XCB_ATOM_WM_CLIENT_MACHINE, XCB_ATOM_ANY, kMaximumNameWords);
        // Windows without the property exist, and as a rule are of this machine.
        if (reply == nullptr || reply->type == XCB_ATOM_NONE || machine.empty()) {
            return true;
        }
        return std::string(static_cast<const char*>(xcb.propertyValue(reply.get())),
                           static_cast<size_t>(xcb.propertyLength(reply.get()))) == machine;
    }

    void ask(xcb_window_t window, xcb_atom_t wish, uint32_t first, uint32_t second,
             uint32_t third) const {
        xcb_client_message_event_t event{};
        event.response_type = XCB_CLIENT_MESSAGE;
        event.format = 32;
        event.window = window;
        event.type = wish;
        event.data.data32[0] = first;
        event.data.data32[1] = second;
        event.data.data32[2] = third;
        // The size of every event of the protocol.
        char bytes[32];
        static_assert(sizeof event == sizeof bytes);
        std::memcpy(bytes, &event, sizeof bytes);
        // To the root window, with the mask of what a window manager has asked for: that is how
        // wishes reach it.
        xcb.sendEvent(display, 0, root,
                      XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                      bytes);
        (void)xcb.flush(display); // a lost connection shows at the next question
    }
};

std::unique_ptr<WindowManager> WindowManager::connect() {
    auto connection = std::make_unique<Connection>();
    const Xcb& xcb = connection->xcb;
    if (!xcb.usable) {
        return nullptr;
    }
    int screenNumber = 0;
    {
        // For the connecting alone: whatever is asked afterwards uses nothing that others share.
        const Turn turn;
        if (!turn.isOurs()) {
            return nullptr; // whoever has it waits for a server that does not answer
        }
        connection->display = xcb.connect(nullptr, &screenNumber);
    }
    // The library gives an object in any case, which has to be closed even then.
    if (xcb.hasError(connection->display) != 0) {
        return nullptr;
    }
    auto screens = xcb.roots(xcb.setup(connection->display));
    for (; screens.rem > 1 && screenNumber > 0; --screenNumber) {
        xcb.nextScreen(&screens);
    }
    if (screens.rem == 0) {
        return nullptr;
    }
    connection->root = screens.data->root;
    connection->active = connection->atom("_NET_ACTIVE_WINDOW");
    connection->clients = connection->atom("_NET_CLIENT_LIST_STACKING");
    connection->restack = connection->atom("_NET_RESTACK_WINDOW");
    connection->process = connection->atom("_NET_WM_PID");
    connection->check = connection->atom("_NET_SUPPORTING_WM_CHECK");
    // Window managers that follow the rules say so by this property. Without one wishes would go
    // nowhere.
    if (connection->numbers(connection->root, connection->check, XCB_ATOM_WINDOW, 1).empty()) {
        return nullptr;
    }
    // The manager keeps the lists of windows and the one with the focus as properties of the root,
    // so its changes are all that there is to wait for.
    const uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb.changeAttributes(connection->display, connection->root, XCB_CW_EVENT_MASK, &events);
    (void)xcb.flush(connection->display);
    return std::unique_ptr<WindowManager>(new WindowManager(std::move(connection)));
}

WindowManager::WindowManager(std::unique_ptr<Connection> connection)
    : connection_(std::move(connection)) {}

WindowManager::~WindowManager() = default;

uint32_t WindowManager::activeWindow() const {
    const auto window =
        connection_->numbers(connection_->root, connection_->active, XCB_ATOM_WINDOW, 1);
    return window.empty() ? 0 : window.front();
}

uint32_t WindowManager::topWindow() const {
    const auto windows = connection_->numbers(connection_->root, connection_->clients,
                                              XCB_ATOM_WINDOW, kMaximumWindows);
    return windows.empty() ? 0 : windows.back();
}

std::vector<uint32_t>
WindowManager::windowsOf(const std::function<bool(uint32_t process)>& isWanted) const {
    std::vector<uint32_t> wanted;
    for (const uint32_t window : connection_->numbers(connection_->root, connection_->clients,
                                                      XCB_ATOM_WINDOW, kMaximumWindows)) {
        const auto process =
            connection_->numbers(window, connection_->process, XCB_ATOM_CARDINAL, 1);
        // Each question goes to the server and back, so the machine is asked for windows that are
        // wanted only.
        if (!process.empty() && isWanted(process.front()) && connection_->isOfThisMachine(window)) {
            wanted.push_back(window);
        }
    }
    return wanted;
}

void WindowManager::activate(uint32_t window) const {
    connection_->ask(window, connection_->active, kFromPager, XCB_CURRENT_TIME, 0);
}

void WindowManager::lower(uint32_t window) const {
    connection_->ask(window, connection_->restack, kFromPager, XCB_WINDOW_NONE,
                     XCB_STACK_MODE_BELOW);
}

bool WindowManager::waitForChange(int64_t milliseconds) const {
    const Xcb& xcb = connection_->xcb;
    pollfd connection{xcb.descriptor(connection_->display), POLLIN, 0};
    (void)poll(&connection, 1, static_cast<int>(milliseconds)); // time or event: looked at next
    // All that is there, since what is in the library's own queue no poll reports. What the events
    // say is asked for anew.
    while (xcb_generic_event_t* event = xcb.pollForEvent(connection_->display)) {
        std::free(event);
    }
    return xcb.hasError(connection_->display) == 0;
}

} // namespace platform
