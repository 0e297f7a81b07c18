#include "livescreen.h"

#include <cstdio>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr const char *openScreen = "\033[?1049h\033[?25l"; // the terminal's second screen, without a cursor
constexpr const char *closeScreen = "\033[?25h\033[?1049l";
constexpr const char *begin = "\033[?7l\033[H"; // what is wider than the terminal is cut; to the upper left corner
constexpr const char *lineEnd = "\033[K\r\n";
constexpr const char *end = "\033[J\033[?7h";

int rowsOfTerminal()
{
    constexpr int usual = 24;
    winsize size = {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : usual;
}

} // namespace

LiveScreen::LiveScreen() : mIsWatched(isatty(STDERR_FILENO)) {}

void LiveScreen::show(std::string_view text)
{
    if (!mIsWatched)
        return;
    std::string shown = mIsOpen ? begin : std::string(openScreen) + begin;
    mIsOpen = true;
    for (int row = 1; row < rowsOfTerminal() && !text.empty(); ++row) {
        const std::size_t length = text.find('\n');
        shown.append(text.substr(0, length)).append(lineEnd);
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    }
    shown += end;
    std::fwrite(shown.data(), 1, shown.size(), stderr);
}

void LiveScreen::close()
{
    if (mIsOpen)
        std::fputs(closeScreen, stderr);
    mIsOpen = false;
    mIsWatched = false;
}
