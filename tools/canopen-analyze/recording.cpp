#include "recording.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

constexpr quint64 badLinesShown = 10;
constexpr std::size_t badLineWidth = 60;
constexpr qint64 blockSize = 1 << 20;

// A damaged log may hold anything; a terminal must not see it.
std::string printable(std::string_view text)
{
    std::string result(text.substr(0, badLineWidth));
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    if (text.size() > badLineWidth)
        result += "...";
    return result;
}

bool isStandardInput(const QString &fileName)
{
    return fileName == QLatin1String("-");
}

bool openLog(QFile &file, const QString &fileName)
{
    if (isStandardInput(fileName))
        return file.open(stdin, QIODevice::ReadOnly | QIODevice::Unbuffered);
    file.setFileName(fileName);
    return file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

} // namespace

QString Recording::load(const QString &fileName)
{
    const bool isInput = isStandardInput(fileName);
    mName = isInput ? QStringLiteral("standard input") : fileName;
    if (!isInput && QFileInfo(fileName).isDir())
        return QStringLiteral("%1 is a directory, not a candump log.").arg(mName);
    QFile file;
    if (!openLog(file, fileName))
        return QStringLiteral("Cannot open %1: %2.").arg(mName, file.errorString());
    const QString problem = readAll(file, file.isSequential() ? 0 : file.size());
    mProgress.clear();
    if (mBadLines > badLinesShown)
        std::fprintf(stderr, "%s: %llu more lines could not be read.\n", qPrintable(mName), mBadLines - badLinesShown);
    if (!problem.isEmpty())
        return problem;
    return frameCount() == 0 ? whyNothingWasFound() : QString();
}

QString Recording::readAll(QIODevice &device, qint64 size)
{
    const auto block = std::make_unique<char[]>(blockSize);
    qint64 done = 0;
    for (;;) {
        const qint64 count = device.read(block.get(), blockSize);
        if (count < 0)
            return QStringLiteral("Cannot read %1: %2.").arg(mName, device.errorString());
        if (count == 0)
            break;
        if (done == 0)
            mLooksCompressed = count >= 2 && block[0] == '\x1F' && block[1] == '\x8B';
        if (mLooksCompressed)
            return whyNothingWasFound();
        mReader.feed(block.get(), std::size_t(count));
        done += count;
        mProgress.show("Reading", done, size);
    }
    mReader.finish();
    return mStoreFull ? QStringLiteral("%1 holds more frames than can be analysed at once.").arg(mName) : QString();
}

QString Recording::whyNothingWasFound() const
{
    if (mLooksCompressed)
        return QStringLiteral("%1 is compressed; try: zcat FILE | canopen-analyze -").arg(mName);
    if (mBadLines == 0)
        return QStringLiteral("%1 holds no frames.").arg(mName);
    return QStringLiteral("%1 holds no frames as candump -l writes them: (seconds.fraction) interface ID#DATA")
        .arg(mName);
}

void Recording::frame(quint8 line, const CAN::CanRxMessage &msg)
{
    if (!mStore.append(line, msg.mFrame, msg.mTimeStamp)) {
        mStoreFull = true;
        return;
    }
    if (msg.mMessageNumber == 1)
        mFirst = msg.mTimeStamp;
    mLast = msg.mTimeStamp;
}

void Recording::badLine(quint64 lineNumber, const char *problem, std::string_view text)
{
    if (++mBadLines > badLinesShown)
        return;
    mProgress.clear();
    std::fprintf(stderr, "%s:%llu: %s: %s\n", qPrintable(mName), lineNumber, problem, printable(text).c_str());
}
