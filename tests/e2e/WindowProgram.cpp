// An application with a window: one colour, until SIGTERM. Sets no hint about the focus, as simple
// programs do not. Usage: window_program TITLE COLOUR (six hexadecimal digits)
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <xcb/xcb.h>

int main(int argc, char** argv) {
    xcb_connection_t* const display = xcb_connect(nullptr, nullptr);
    if (argc != 3 || xcb_connection_has_error(display) != 0) {
        return 1;
    }
    const xcb_screen_t* const screen = xcb_setup_roots_iterator(xcb_get_setup(display)).data;
    const xcb_window_t window = xcb_generate_id(display);
    const auto colour = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 16));
    xcb_create_window(display, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 300, 200, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL,
                      &colour);
    constexpr const char* kPid = "_NET_WM_PID";
    xcb_intern_atom_reply_t* const atom = xcb_intern_atom_reply(
        display, xcb_intern_atom(display, 0, static_cast<uint16_t>(std::strlen(kPid)), kPid),
        nullptr);
    const auto pid = static_cast<uint32_t>(getpid());
    xcb_change_property(display, XCB_PROP_MODE_REPLACE, window, atom->atom, XCB_ATOM_CARDINAL, 32,
                        1, &pid);
    std::free(atom);
    xcb_change_property(display, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING,
                        8, static_cast<uint32_t>(std::strlen(argv[1])), argv[1]);
    xcb_map_window(display, window);
    xcb_flush(display);
    while (xcb_generic_event_t* event = xcb_wait_for_event(display)) {
        std::free(event);
    }
    return 0;
}
