#include "recording.h"

#include "candumpreader.h"
#include "capturereader.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

namespace {

constexpr quint64 badPiecesShown = 10;
constexpr std::size_t badPieceWidth = 60;
constexpr qint64 blockSize = 1 << 20;
constexpr qint64 beginningSize = 512; // enough to tell a format

// A damaged log may hold anything; a terminal must not see it.
std::string printable(std::string_view text)
{
    std::string result(text.substr(0, badPieceWidth));
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    if (text.size() > badPieceWidth)
        result += "...";
    return result;
}

bool isStandardInput(const QString &fileName)
{
    return fileName == QLatin1String("-");
}

bool openRecording(QFile &file, const QString &fileName)
{
    if (isStandardInput(fileName))
        return file.open(stdin, QIODevice::ReadOnly | QIODevice::Unbuffered);
    file.setFileName(fileName);
    return file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

// A log begins with a time stamp or a remark, however damaged it is further on.
bool looksBinary(const QByteArray &beginning)
{
    const QByteArray text = beginning.trimmed();
    return beginning.contains('\0') && !text.startsWith('(') && !text.startsWith('#');
}

} // namespace

Recording::Recording(Progress &progress, std::shared_ptr<WorkDone> done)
    : mProgress(progress),
      mShowsReading(!done),
      mDone(done ? std::move(done) : std::make_shared<WorkDone>()),
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
    if (mFacts.badPieces > badPiecesShown)
        mProgress.message(
            QStringLiteral("%1: %2 more %3s could not be read.")
                .arg(mFacts.name, QString::number(mFacts.badPieces - badPiecesShown), QLatin1String(mFacts.piece)));
    mDone->frames = mFacts.frames;
    if (problem.isEmpty() && mStoreFull)
        problem = QStringLiteral("%1 holds more frames than can be analysed at once.").arg(mFacts.name);
    if (problem.isEmpty() && mFacts.frames == 0)
        problem = whyNothingWasFound();
    return problem;
}

QString Recording::readFrom(const QString &fileName)
{
    if (!isStandardInput(fileName) && QFileInfo(fileName).isDir())
        return QStringLiteral("%1 is a directory, not a recording.").arg(fileName);
    QFile file;
    if (!openRecording(file, fileName))
        return QStringLiteral("Cannot open %1: %2.").arg(mFacts.name, file.errorString());
    const QByteArray beginning = file.peek(beginningSize);
    if (beginning.startsWith("\x1F\x8B"))
        return QStringLiteral("%1 is compressed; try: zcat FILE | canopen-analyze -").arg(mFacts.name);
    if (CaptureReader::recognises(beginning))
        return readCapture(file);
    if (looksBinary(beginning))
        return QStringLiteral("%1 is neither a candump log nor a capture (pcap, pcapng).").arg(mFacts.name);
    return readLog(file);
}

QString Recording::readLog(QIODevice &device)
{
    CandumpReader reader(*this);
    const auto block = std::make_unique<char[]>(blockSize);
    qint64 count = 0;
    while ((count = readBlock(device, block.get(), blockSize)) > 0)
        reader.feed(block.get(), std::size_t(count));
    if (count < 0)
        return QStringLiteral("Cannot read %1: %2.").arg(mFacts.name, device.errorString());
    reader.finish();
    takeFacts(reader);
    return {};
}

QString Recording::readCapture(QIODevice &device)
{
    mFacts.piece = "packet";
    CaptureReader reader(*this);
    const QString problem = reader.read([&](char *data, qint64 size) { return readBlock(device, data, size); });
    takeFacts(reader);
    return problem.isEmpty() ? problem : problem.arg(mFacts.name);
}

// Returns how many bytes it got, 0 at the end, -1 when it cannot.
qint64 Recording::readBlock(QIODevice &device, char *block, qint64 size)
{
    const qint64 count = device.read(block, size);
    mDone->bytesRead += std::max<qint64>(0, count);
    if (mShowsReading)
        mProgress.show("Reading", mDone->bytesRead, device.isSequential() ? 0 : device.size());
    return count;
}

template<typename Reader>
void Recording::takeFacts(const Reader &reader)
{
    mFacts.interfaces = reader.interfaces();
    mFacts.frames = reader.frameCount();
    mFacts.pieces = reader.pieceCount();
}

QString Recording::whyNothingWasFound() const
{
    if (mFacts.badPieces == 0)
        return QStringLiteral("%1 holds no frames.").arg(mFacts.name);
    if (mFacts.piece == QLatin1String("packet"))
        return QStringLiteral("%1 holds no frames that can be read.").arg(mFacts.name);
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

void Recording::badPiece(quint64 number, const char *problem, std::string_view text)
{
    if (++mFacts.badPieces > badPiecesShown)
        return;
    const QLatin1String place(mFacts.piece == QLatin1String("line") ? "%1:%2: %3" : "%1: packet %2: %3");
    const QString what = QString(place).arg(mFacts.name, QString::number(number), QLatin1String(problem));
    mProgress.message(text.empty() ? what : what + QLatin1String(": ") + QString::fromStdString(printable(text)));
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
