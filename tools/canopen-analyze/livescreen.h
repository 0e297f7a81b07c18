#ifndef CANOPENANALYZE_LIVESCREEN_H
#define CANOPENANALYZE_LIVESCREEN_H

#include <QtGlobal>

#include <string_view>

/// A text that is shown in place of the one before, on the terminal that standard error is. Where it is none, nothing is
/// shown. What the terminal held before comes back when the screen is closed.
class LiveScreen
{
    Q_DISABLE_COPY_MOVE(LiveScreen)

public:
    LiveScreen();
    ~LiveScreen() { close(); }

    /// Whether anything is shown.
    bool isWatched() const { return mIsWatched; }
    /// Shows \a text (lines that end with LF, with colours or without) as far as the terminal has room for it.
    void show(std::string_view text);
    /// Nothing is shown afterwards.
    void close();

private:
    bool mIsWatched;
    bool mIsOpen = false;
};

#endif // CANOPENANALYZE_LIVESCREEN_H
