#include "recording.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

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

Recording::Recording(Progress &progress, std::shared_ptr<WorkDone> done)
    : mProgress(progress),
      mShowsReading(!done),
      mDone(done ? std::move(done) : std::make_shared<WorkDone>()),
      mReader(*this),
      mStore(mDone->framesFetched)
{
}

QString Recording::load(const QString &fileName)
{
    mFacts.name = isStandardInput(fileName) ? QStringLiteral("standard input") : fileName;
    QString problem;
    try {
        problem = readFrom(fileName);
    } catch (const std::bad_alloc &) {
        problem = QStringLiteral("There is not enough memory for %1.").arg(mFacts.name);
    }
    mProgress.clear();
    if (mFacts.badLines > badLinesShown)
        mProgress.message(QStringLiteral("%1: %2 more lines could not be read.")
                              .arg(mFacts.name, QString::number(mFacts.badLines - badLinesShown)));
    mFacts.interfaces = mReader.interfaces();
    mFacts.frames = mReader.frameCount();
    mDone->frames = mFacts.frames;
    mFacts.lines = mReader.lineCount();
    if (problem.isEmpty() && mFacts.frames == 0)
        problem = whyNothingWasFound();
    return problem;
}

QString Recording::readFrom(const QString &fileName)
{
    if (!isStandardInput(fileName) && QFileInfo(fileName).isDir())
        return QStringLiteral("%1 is a directory, not a candump log.").arg(fileName);
    QFile file;
    if (!openLog(file, fileName))
        return QStringLiteral("Cannot open %1: %2.").arg(mFacts.name, file.errorString());
    return readAll(file, file.isSequential() ? 0 : file.size());
}

QString Recording::readAll(QIODevice &device, qint64 size)
{
    const auto block = std::make_unique<char[]>(blockSize);
    qint64 done = 0;
    for (;;) {
        const qint64 count = device.read(block.get(), blockSize);
        if (count < 0)
            return QStringLiteral("Cannot read %1: %2.").arg(mFacts.name, device.errorString());
        if (count == 0)
            break;
        if (done == 0)
            mLooksCompressed = count >= 2 && block[0] == '\x1F' && block[1] == '\x8B';
        if (mLooksCompressed)
            return whyNothingWasFound();
        mReader.feed(block.get(), std::size_t(count));
        done += count;
        mDone->bytesRead = done;
        if (mShowsReading)
            mProgress.show("Reading", done, size);
    }
    mReader.finish();
    return mStoreFull ? QStringLiteral("%1 holds more frames than can be analysed at once.").arg(mFacts.name)
                      : QString();
}

QString Recording::whyNothingWasFound() const
{
    if (mLooksCompressed)
        return QStringLiteral("%1 is compressed; try: zcat FILE | canopen-analyze -").arg(mFacts.name);
    if (mFacts.badLines == 0)
        return QStringLiteral("%1 holds no frames.").arg(mFacts.name);
    return QStringLiteral("%1 holds no frames as candump -l writes them: (seconds.fraction) interface ID#DATA")
        .arg(mFacts.name);
}

void Recording::frame(quint8 line, const CAN::CanRxMessage &msg)
{
    if (!mStore.append(line, msg.mFrame, msg.mTimeStamp)) {
        mStoreFull = true;
        return;
    }
    if (msg.mMessageNumber == 1)
        mFacts.first = msg.mTimeStamp;
    mFacts.last = msg.mTimeStamp;
}

void Recording::badLine(quint64 lineNumber, const char *problem, std::string_view text)
{
    if (++mFacts.badLines > badLinesShown)
        return;
    mProgress.message(QStringLiteral("%1:%2: %3: %4")
                          .arg(mFacts.name, QString::number(lineNumber), QLatin1String(problem),
                               QString::fromStdString(printable(text))));
}

std::vector<quint8> linesNamed(const QStringList &names, const RecordingFacts &facts, QString &problem)
{
    QStringList known;
    for (const std::string &name : facts.interfaces)
        known += QString::fromStdString(name);
    for (const QString &name : names) {
        if (!known.contains(name))
            problem = QStringLiteral("There is no interface %1 in %2, only %3.")
                          .arg(name, facts.name, known.join(QLatin1String(", ")));
    }
    std::vector<quint8> lines;
    for (int line = 0; line < known.size(); ++line) {
        if (names.isEmpty() || names.contains(known.at(line)))
            lines.push_back(quint8(line));
    }
    return lines;
}
