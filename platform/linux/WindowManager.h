#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace platform {

// A connection to the X display of the environment and, over it, to its window manager by the
// rules of the Extended Window Manager Hints. The library is loaded at run time. A display that
// does not answer blocks its caller. Used by one thread at a time.
class WindowManager {
public:
    // Null without the library, a display, or a window manager that follows the rules.
    static std::unique_ptr<WindowManager> connect();
    ~WindowManager();
    WindowManager(const WindowManager&) = delete;
    WindowManager& operator=(const WindowManager&) = delete;

    // The window with the focus, 0 for none.
    uint32_t activeWindow() const;
    // The topmost one, 0 for none.
    uint32_t topWindow() const;
    // The windows, bottom one first, of the processes that `isWanted`.
    std::vector<uint32_t> windowsOf(const std::function<bool(uint32_t process)>& isWanted) const;
    void activate(uint32_t window) const;
    void lower(uint32_t window) const;
    // Waits until windows come, go or change places, at most so long; false when the connection is
    // lost.
    bool waitForChange(int64_t milliseconds) const;

private:
    struct Connection;
    explicit WindowManager(std::unique_ptr<Connection> connection);
    const std::unique_ptr<Connection> connection_;
};

} // namespace platform
