#ifndef CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H
#define CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H

#include "trace.h"

#include "support/datachunkhandler.h"

#include <QtTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <thread>

/// A recording store as the contract below drives it. Hosts that bring a store of their own derive from it.
class StoreUnderTest
{
public:
    virtual ~StoreUnderTest() = default;
    virtual DatachunkHandler &store() = 0;
    /// Records \a frame; the store gives it a message number. May wait while the store is being cleared.
    virtual void append(unsigned char line, const CAN::CanRxMessage &frame) = 0;
    virtual void clear(bool isLive) = 0;
};

/// What an analysis relies on, in the form of tests against DatachunkHandler. A test class of the host has two slots, with
///     DatachunkHandlerContract::addClauses();                 in the _data one, and
///     DatachunkHandlerContract(factory).checkClause();        in the other.
/// Each clause gets a store of its own from the factory. Most are steps and the answers to them; lines are 0 to 9, and each
/// has a reader with a position of its own:
///     0+181          records a frame of identifier 181 on line 0
///     0>             fetches the frame at the reader's position, which moves on: its identifier, or "-"
///     0*             all frames from the reader's position on: [181 182]
///     0?             the next frame after the read position that all users of the line share
///     all            all frames by their place in the recording
///     rewind         sets the positions back
///     clear, live    clear the recording; start[181] and cleared[] tell what could be fetched when the signals came
class DatachunkHandlerContract
{
public:
    using Factory = std::function<std::unique_ptr<StoreUnderTest>()>;

    explicit DatachunkHandlerContract(const Factory &factory) : mHost(factory()), mStore(mHost->store())
    {
        const auto begin = [this] { log << "start" + byPlace(); };
        const auto end = [this](bool isLive) {
            log << (isLive ? "live" : "cleared") + byPlace();
            mPositions.fill(0);
        };
        QObject::connect(&mStore, &DatachunkHandler::informAboutClearStart, &mContext, begin, Qt::DirectConnection);
        QObject::connect(&mStore, &DatachunkHandler::informAboutCleared, &mContext, end, Qt::DirectConnection);
    }

    static void addClauses()
    {
        QTest::addColumn<QByteArray>("steps");
        QTest::addColumn<QString>("answers");
        const auto add = [](const char *name, const char *steps, const char *answers = "") {
            QTest::newRow(name) << QByteArray(steps) << QString(answers);
        };
        add("an empty recording has no frame", "all 0> 0? 0*", "[] - - []");
        add("two lines keep one recording order", "0+181 7+281 7+282 0+182 all", "[181 281 282 182]");
        add("a line is read to its end, and on when frames follow", "0+181 1+281 1> 1> 0+182 1> 1+282 1>",
            "281 - - 282");
        add("users of a line share a read position", "0+181 0+182 1+281 0? 1? 0? 0? 1? 0+183 0? rewind 1? 0?",
            "181 281 182 - - 183 281 181");
        add("read positions start over in a new recording", "0+181 0? clear 0? 0+182 0+183 0? 0? 0?",
            "181 start[181] cleared[] - 182 183 -");
        add("the rest of a line is what fetching would bring", "0+181 1+281 0+182 0+183 0* 2* 0> 0* 0> 0> 0* 0>",
            "[181 182 183] [] 181 [182 183] 182 183 [] -");
        add("a clear: all frames there at its start, none at its end", "0+181 1+281 live 0* 1> 0+182 clear 0+183 all",
            "start[181 281] live[] [] - start[182] cleared[] [183]");
        add("a frame comes back as it was recorded", "frames");
        add("threads append, read and clear: no frame is lost, doubled or torn", "threads");
    }

    void checkClause()
    {
        QFETCH(QByteArray, steps);
        if (steps == "frames")
            return framesComeBack();
        if (steps == "threads")
            return threadsAtOnce();
        play(steps);
        QTEST(log.join(' '), "answers");
    }

    DatachunkHandler &store() { return mStore; }
    QStringList log; ///< the answers, in the order of the steps

    void play(const QByteArray &steps)
    {
        for (const QByteArray &step : steps.simplified().split(' ')) {
            if (!step.isEmpty())
                play(step, quint8(step.at(0) - '0'));
        }
    }

    /// Frame number \a n of a long recording, of one kind after the other. All its fields follow from the number, so that a
    /// torn one shows.
    static CAN::CanRxMessage numbered(quint32 n)
    {
        using Frame = CAN::CanMessage;
        constexpr quint8 kinds[] = {0, Frame::ExtendedId, Frame::RemoteRequest, Frame::ErrorFrame, Frame::FdFormat};
        CAN::CanRxMessage msg;
        msg.mTimeStamp = CanTimeStamp::fromNSecs(n);
        msg.mFrame.mIdentifier = n;
        msg.mFrame.mFlags = kinds[n % 5];
        msg.mFrame.mDataLength = quint8(n % 5 == 4 ? CAN::fdPayloadLengths.at(int(n % 7)) : n % 9);
        for (int i = 0; n % 5 != 2 && i < msg.mFrame.mDataLength; ++i)
            msg.mFrame.mPayload[i] = quint8(n >> 8 * (i % 4));
        return msg;
    }
    static quint32 numberIn(const CAN::CanRxMessage &msg) { return quint32(msg.mTimeStamp.toNSecs()); }
    static bool isWhole(const CAN::CanRxMessage &msg, quint32 n)
    {
        const CAN::CanMessage frame = numbered(n).mFrame;
        return numberIn(msg) == n && msg.mFrame.mIdentifier == n && msg.mFrame.mFlags == frame.mFlags
               && msg.mFrame.mDataLength == frame.mDataLength
               && std::memcmp(msg.mFrame.mPayload, frame.mPayload, sizeof(frame.mPayload)) == 0;
    }

private:
    void play(const QByteArray &step, quint8 line)
    {
        CAN::CanRxMessage msg;
        if (step == "clear" || step == "live") {
            mHost->clear(step == "live");
        } else if (step == "rewind") {
            mPositions.fill(0);
            mStore.resetLinePositions();
        } else if (step.at(1) == '+') {
            mHost->append(line, frame(step.mid(2)));
        } else if (step.at(1) == '>') {
            log << (mStore.getMessageOfLine(msg, line, mPositions[line]) ? textOf(msg) : "-");
            mPositions[line] += log.last() == "-" ? 0 : 1;
        } else if (step.at(1) == '?') {
            log << (mStore.nextMessageForLine(msg, line) ? textOf(msg) : "-");
        } else {
            log << (step == "all" ? byPlace() : textOf(mStore.getMessagesOfLine(line, mPositions[line])));
        }
    }

    QString byPlace()
    {
        QList<CAN::CanRxMessage> messages;
        while (messages.size() < mStore.getMessageCount())
            messages << mStore.messageAt(messages.size());
        return textOf(messages);
    }

    static QString textOf(const CAN::CanRxMessage &msg) { return QString::number(msg.mFrame.mIdentifier, 16); }
    static QString textOf(const QList<CAN::CanRxMessage> &messages)
    {
        QStringList texts;
        for (const CAN::CanRxMessage &msg : messages)
            texts << textOf(msg);
        return '[' + texts.join(' ') + ']';
    }

    // The receiver reuses its buffers: what is left of a long frame must not come back with the short one after it.
    void framesComeBack()
    {
        CAN::CanRxMessage msg;
        for (unsigned int n = 0; n < 1000; ++n) {
            const quint32 numberBefore = msg.mMessageNumber;
            CAN::CanRxMessage sent = numbered(n);
            for (int i = n % 5 == 2 ? 0 : sent.mFrame.mDataLength; i < CAN::CanMessage::maxPayload; ++i)
                sent.mFrame.mPayload[i] = 0xEE;
            mHost->append(3, sent);
            QVERIFY(mStore.getMessageOfLine(msg, 3, n));
            QVERIFY(isWhole(msg, n) && (n == 0 || msg.mMessageNumber > numberBefore));
        }
    }

    // Reads without heed of clears: line 1 at its start, line 0 to its end, again and again.
    int faultsOfReading(const std::atomic<bool> &isOver)
    {
        int faults = 0;
        CAN::CanRxMessage msg;
        for (unsigned int position = 0, start = 0; !isOver;) {
            faults += mStore.getMessageOfLine(msg, 1, start) && !isWhole(msg, numberIn(msg)) ? 1 : 0;
            const bool isThere = mStore.getMessageOfLine(msg, 0, position);
            faults += isThere && !isWhole(msg, numberIn(msg)) ? 1 : 0;
            for (const CAN::CanRxMessage &one : isThere ? QList<CAN::CanRxMessage>() : mStore.getMessagesOfLine(0, 0))
                faults += isWhole(one, numberIn(one)) ? 0 : 1;
            position = isThere ? position + 1 : 0;
        }
        return faults;
    }

    // Line 0 gets its frames while line 1 gets one a recording; later the last recording grows.
    void threadsAtOnce()
    {
        constexpr quint32 count = 400000; // of frames on line 0, and of clears
        mStore.disconnect(&mContext);
        QVector<quint32> seen;
        const auto seeAll = [&] {
            for (const CAN::CanRxMessage &msg : mStore.getMessagesOfLine(0, 0))
                seen << numberIn(msg);
        };
        QObject::connect(&mStore, &DatachunkHandler::informAboutClearStart, &mContext, seeAll, Qt::DirectConnection);
        std::atomic<quint32> cleared = 0;
        std::atomic<bool> isOver = false;
        std::future<int> faults = std::async(std::launch::async, [&] { return faultsOfReading(isOver); });
        std::thread receiver([&] {
            for (quint32 n = 1; n <= count; ++n) {
                mHost->append(0, numbered(n));
                while (cleared < std::min(2 * n, count)) {}
            }
        });
        for (; cleared < count; ++cleared) {
            mHost->append(1, numbered(cleared));
            mHost->clear(true);
        }
        receiver.join();
        seeAll();
        isOver = true;
        QCOMPARE(faults.get(), 0);
        QCOMPARE(seen.size(), int(count));
        QVERIFY(std::is_sorted(seen.cbegin(), seen.cend(), std::less_equal<>()));
    }

    std::unique_ptr<StoreUnderTest> mHost;
    DatachunkHandler &mStore;
    std::array<unsigned int, 10> mPositions = {}; // of the readers
    QObject mContext;                             // last: ends the connections first
};

#endif // CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H
