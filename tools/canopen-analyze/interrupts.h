#ifndef CANOPENANALYZE_INTERRUPTS_H
#define CANOPENANALYZE_INTERRUPTS_H

#include <QObject>
#include <QSocketNotifier>

#include <array>
#include <memory>

/// Turns the first Ctrl-C (SIGINT) or SIGTERM into a Qt signal. The next one ends the program at once, as if this object did
/// not exist; but what comes right after the first belongs to it, since some programs (timeout, for one) send the same signal
/// to a process and to its group. One object for the process; lives in a thread with an event loop.
class Interrupts final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Interrupts)

public:
    Interrupts();
    ~Interrupts() override;

Q_SIGNALS:
    /// Once.
    void interrupted();

private:
    static void onSignal(int number);
    void onReadable();

    std::array<int, 2> mPipe{-1, -1}; // from the signal handler to the event loop
    std::unique_ptr<QSocketNotifier> mNotifier;
};

#endif // CANOPENANALYZE_INTERRUPTS_H
