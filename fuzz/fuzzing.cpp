#include "fuzzing.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t stepBytes = 12;
constexpr int payloadBytes = 8;

// The library's own debug output is dropped; Qt warns about its misuse (threads, timers, connections): a finding.
void onQtMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        fuzzFailed(qPrintable(text), "a message of Qt", 0);
}

CAN::CanMessage frameOf(const std::uint8_t *step)
{
    CAN::CanMessage frame;
    frame.mFlags = (step[0] >> 4) & 7;
    frame.mIdentifier = quint32(step[0] & 0x0F) << 7 | (step[1] & 0x7FU) | (step[1] & 0x80U) << 9;
    frame.mDataLength = step[3];
    if (frame.mDataLength > payloadBytes)
        frame.mFlags |= CAN::CanMessage::FdFormat;
    if (frame.mFlags & CAN::CanMessage::RemoteRequest)
        return frame;
    for (int i = 0; i < std::min<int>(frame.mDataLength, CAN::CanMessage::maxPayload); ++i)
        frame.mPayload[i] = step[4 + i % payloadBytes];
    return frame;
}

} // namespace

void fuzzFailed(const char *property, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
    std::abort();
}

std::vector<FuzzStep> fuzzSteps(const std::uint8_t *data, std::size_t size, std::size_t limit)
{
    std::vector<FuzzStep> steps(std::min(size / stepBytes, limit));
    for (FuzzStep &step : steps) {
        step.isAction = (data[0] & 0x80) != 0;
        step.action = data[0] & 0x7F;
        step.argument = data[1];
        step.msecs = qint8(data[2]);
        std::memcpy(&step.number, data + 4, sizeof step.number);
        step.frame = frameOf(data);
        data += stepBytes;
    }
    return steps;
}

int LLVMFuzzerInitialize(int *argc, char ***argv) // NOLINT(readability-non-const-parameter): as libFuzzer declares it
{
    qInstallMessageHandler(onQtMessage);
    static QCoreApplication application(*argc, *argv);
    return 0;
}
