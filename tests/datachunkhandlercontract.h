#ifndef CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H
#define CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H

#include "trace.h"

#include "support/datachunkhandler.h"

#include <QStringList>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
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
/// Each clause gets a store of its own from the factory.
class DatachunkHandlerContract
{
public:
    using Factory = std::function<std::unique_ptr<StoreUnderTest>()>;

    explicit DatachunkHandlerContract(const Factory &factory) : mHost(factory()), mStore(mHost->store()) {}

    static void addClauses()
    {
        QTest::addColumn<int>("clause");
        for (int i = 0; i < clauses().size(); ++i)
            QTest::newRow(clauses().at(i).first) << i;
    }

    void checkClause()
    {
        QFETCH(int, clause);
        (this->*clauses().at(clause).second)();
    }

    /// Everything about a frame but its number; payload bytes beyond the data length only where they are not 0.
    static QString describe(const CAN::CanRxMessage &msg)
    {
        const CAN::CanMessage &frame = msg.mFrame;
        QByteArray payload(reinterpret_cast<const char *>(frame.mPayload), CAN::CanMessage::maxPayload);
        while (payload.size() > frame.mDataLength && payload.endsWith('\0'))
            payload.chop(1);
        return QStringLiteral("%1 flags %2 length %3 at %4: %5")
            .arg(frame.mIdentifier, 0, 16)
            .arg(frame.mFlags)
            .arg(frame.mDataLength)
            .arg(msg.mTimeStamp.toNSecs())
            .arg(QString::fromLatin1(payload.toHex(' ')));
    }

    static QStringList describe(const QList<CAN::CanRxMessage> &messages)
    {
        QStringList texts;
        for (const CAN::CanRxMessage &msg : messages)
            texts << describe(msg);
        return texts;
    }

private:
    using Clause = void (DatachunkHandlerContract::*)();
    using Contract = DatachunkHandlerContract;

    static const QVector<QPair<const char *, Clause>> &clauses()
    {
        static const QVector<QPair<const char *, Clause>> list = {
            {"an empty recording has no frame", &Contract::emptyRecording},
            {"a frame comes back as it was recorded", &Contract::framesComeBack},
            {"two lines keep one recording order", &Contract::recordingOrder},
            {"a line is read to its end, and on when frames follow", &Contract::readingGoesOn},
            {"each line has one read position, shared by its users", &Contract::readPositions},
            {"two threads share out the frames of a line", &Contract::sharedPosition},
            {"the rest of a line is what fetching would bring", &Contract::restOfLine},
            {"a clear: all frames there at its start, none at its end", &Contract::clearInOrder},
            {"a frame that comes during a clear belongs to the new recording", &Contract::appendDuringClear},
            {"clears while frames come: each is analysed once, in order", &Contract::nothingLostNorDoubled},
        };
        return list;
    }

    void record(unsigned char line, const QByteArray &trace)
    {
        for (const CAN::CanRxMessage &msg : frames(trace))
            mHost->append(line, msg);
    }

    /// Frame number \a n of a long recording: the number is in its time stamp.
    void recordNumbered(unsigned char line, int n)
    {
        CAN::CanRxMessage msg = frame("181 00 00");
        msg.mTimeStamp = CanTimeStamp::fromNSecs(n);
        mHost->append(line, msg);
    }

    QStringList fetchFrom(unsigned char line, unsigned int position)
    {
        QStringList texts;
        for (CAN::CanRxMessage msg; mStore.getMessageOfLine(msg, line, position); ++position)
            texts << describe(msg);
        return texts;
    }

    /// Identifier of the next frame for \a line, "-" when there is none.
    QString next(unsigned char line)
    {
        CAN::CanRxMessage msg;
        return mStore.nextMessageForLine(msg, line) ? QString::number(msg.mFrame.mIdentifier, 16) : QStringLiteral("-");
    }

    void emptyRecording()
    {
        CAN::CanRxMessage msg;
        unsigned int position = 0;
        QVERIFY(mStore.getMessageCount() <= 0);
        QVERIFY(!mStore.getMessageOfLine(msg, 0, position));
        QCOMPARE(position, 0U);
        QVERIFY(!mStore.nextMessageForLine(msg, 0));
        QVERIFY(mStore.getMessagesOfLine(0, 0).isEmpty());
    }

    void framesComeBack()
    {
        const QByteArray trace = R"(
            605  40 18 10 01 00 00 00 00
            080
            000  01 05
            185  R8                         | remote frame: a length, no data
            12345678  11 22 33              | 29-bit identifier
            1FFFFFFF  01 02 03 04 05 06 07 08
            7FF  error 01 02
            181  01 02 03 04 05 06 07 08 09 0A 0B 0C  | CAN FD
            182  FF FF FF FF FF FF FF FF)";
        QList<CAN::CanRxMessage> sent = frames(trace);
        CAN::CanRxMessage longest = frame("183");
        longest.mFrame.mFlags = CAN::CanMessage::FdFormat;
        longest.mFrame.mDataLength = CAN::CanMessage::maxPayload;
        std::iota(std::begin(longest.mFrame.mPayload), std::end(longest.mFrame.mPayload), quint8(0xA0));
        sent << longest << sent.constFirst();
        for (const CAN::CanRxMessage &msg : std::as_const(sent))
            mHost->append(3, msg);
        // One buffer for all, as the analysis has it: nothing of a long frame may be left in the short one after it.
        QCOMPARE(fetchFrom(3, 0), describe(sent));
    }

    void recordingOrder()
    {
        record(0, "181 01");
        record(7, "281 02");
        record(7, "282 03");
        record(0, "182 04");
        QCOMPARE(mStore.getMessageCount(), 4);
        QList<quint32> identifiers;
        QList<quint32> steps;
        for (int i = 0; i < 4; ++i) {
            identifiers << mStore.messageAt(i).mFrame.mIdentifier;
            steps << mStore.messageAt(i).mMessageNumber - mStore.messageAt(0).mMessageNumber;
        }
        QCOMPARE(identifiers, (QList<quint32>{0x181, 0x281, 0x282, 0x182}));
        QVERIFY2(std::is_sorted(steps.cbegin(), steps.cend(), std::less_equal<>()), "message numbers ascend");
    }

    void readingGoesOn()
    {
        record(0, "181");
        record(1, "281");
        CAN::CanRxMessage msg;
        unsigned int position = 0;
        QVERIFY(mStore.getMessageOfLine(msg, 1, position));
        QCOMPARE(msg.mFrame.mIdentifier, 0x281U);
        const unsigned int atEnd = ++position;
        QVERIFY(!mStore.getMessageOfLine(msg, 1, position));
        QCOMPARE(position, atEnd);
        record(0, "182");
        QVERIFY(!mStore.getMessageOfLine(msg, 1, position));
        record(1, "282");
        QVERIFY(mStore.getMessageOfLine(msg, 1, position));
        QCOMPARE(msg.mFrame.mIdentifier, 0x282U);
    }

    void readPositions()
    {
        record(0, "181\n 182");
        record(1, "281");
        QCOMPARE((QStringList{next(0), next(1), next(0), next(0), next(1)}),
                 (QStringList{"181", "281", "182", "-", "-"}));
        record(0, "183");
        QCOMPARE(next(0), QStringLiteral("183"));
        mStore.resetLinePositions();
        QCOMPARE((QStringList{next(1), next(0)}), (QStringList{"281", "181"}));
        mHost->clear(false);
        record(0, "184\n 185");
        QCOMPARE((QStringList{next(0), next(0), next(0)}), (QStringList{"184", "185", "-"}));
    }

    void sharedPosition()
    {
        constexpr int count = 10000;
        for (int n = 0; n < count; ++n)
            recordNumbered(0, n);
        const auto takeAll = [this](QVector<qint64> &taken) {
            for (CAN::CanRxMessage msg; mStore.nextMessageForLine(msg, 0);)
                taken << msg.mTimeStamp.toNSecs();
        };
        QVector<qint64> mine;
        QVector<qint64> others;
        std::thread other([&] { takeAll(others); });
        takeAll(mine);
        other.join();
        QVERIFY2(std::is_sorted(mine.cbegin(), mine.cend()), "each user gets its frames in order");
        mine += others;
        std::sort(mine.begin(), mine.end());
        QVector<qint64> all(count);
        std::iota(all.begin(), all.end(), 0);
        QCOMPARE(mine, all);
    }

    void restOfLine()
    {
        record(0, "181\n 182\n 183");
        record(1, "281");
        record(0, "184");
        unsigned int position = 0;
        for (CAN::CanRxMessage msg; mStore.getMessageOfLine(msg, 0, position); ++position)
            QCOMPARE(describe(mStore.getMessagesOfLine(0, position)), fetchFrom(0, position));
        QVERIFY(mStore.getMessagesOfLine(0, position).isEmpty());
        QVERIFY(mStore.getMessagesOfLine(2, 0).isEmpty());
    }

    void clearInOrder()
    {
        QStringList log;
        QObject::connect(&mStore, &DatachunkHandler::informAboutClearStart, &mContext, [&] {
            log << QStringLiteral("start: %1 frames, %2 fetched")
                       .arg(mStore.getMessageCount())
                       .arg(mStore.getMessagesOfLine(0, 0).size());
        });
        QObject::connect(&mStore, &DatachunkHandler::informAboutCleared, &mContext, [&](bool isLive) {
            log << QStringLiteral("cleared%1: %2 frames, %3 fetched")
                       .arg(isLive ? " live" : "")
                       .arg(mStore.getMessageCount())
                       .arg(mStore.getMessagesOfLine(0, 0).size());
        });
        record(0, "181\n 182");
        mHost->clear(true);
        QCOMPARE(describe(mStore.messageAt(0)), describe(CAN::CanRxMessage())); // whoever asked for the count before it
        record(0, "183");
        QCOMPARE(fetchFrom(0, 0), QStringList{describe(frame("183"))});
        mHost->clear(false);
        QCOMPARE(log, (QStringList{"start: 2 frames, 2 fetched", "cleared live: 0 frames, 0 fetched",
                                   "start: 1 frames, 1 fetched", "cleared: 0 frames, 0 fetched"}));
    }

    void appendDuringClear()
    {
        std::thread receiver;
        int countAtEnd = -1;
        QObject::connect(&mStore, &DatachunkHandler::informAboutClearStart, &mContext, [&] {
            std::atomic<bool> isThere = false;
            receiver = std::thread([&] {
                isThere = true;
                record(0, "182");
            });
            while (!isThere)
                std::this_thread::yield();
        });
        QObject::connect(&mStore, &DatachunkHandler::informAboutCleared, &mContext,
                         [&] { countAtEnd = mStore.getMessageCount(); });
        // The receiving thread may come early or late; most of these rounds meet it within the clear.
        for (int round = 0; round < 50; ++round) {
            record(0, "181");
            mHost->clear(true);
            receiver.join();
            QCOMPARE(countAtEnd, 0);
            QCOMPARE(fetchFrom(0, 0), QStringList{describe(frame("182"))});
        }
    }

    /// An analysis in miniature: fetches one by one, and takes the rest when a clear starts.
    class Analysis
    {
    public:
        explicit Analysis(DatachunkHandler &store) : mStore(store)
        {
            QObject::connect(
                &store, &DatachunkHandler::informAboutClearStart, &mContext, [this] { rescue(); },
                Qt::DirectConnection);
            QObject::connect(
                &store, &DatachunkHandler::informAboutCleared, &mContext, [this] { resume(); }, Qt::DirectConnection);
        }

        bool fetchOne()
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            CAN::CanRxMessage msg;
            if (mIsClearing || !mStore.getMessageOfLine(msg, 0, mPosition))
                return false;
            ++mPosition;
            mSeen << msg.mTimeStamp.toNSecs();
            return true;
        }

        const QVector<qint64> &seen() const { return mSeen; }

    private:
        void rescue()
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mIsClearing = true;
            for (const CAN::CanRxMessage &msg : mStore.getMessagesOfLine(0, mPosition))
                mSeen << msg.mTimeStamp.toNSecs();
        }
        void resume()
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mIsClearing = false;
            mPosition = 0;
        }

        DatachunkHandler &mStore;
        std::mutex mMutex; // guards what follows
        unsigned int mPosition = 0;
        bool mIsClearing = false;
        QVector<qint64> mSeen;
        QObject mContext; // last: ends the connections first
    };

    void nothingLostNorDoubled()
    {
        constexpr int count = 20000;
        constexpr int clears = 100;
        Analysis analysis(mStore);
        std::atomic<int> appended = 0;
        std::thread receiver([&] {
            for (int n = 0; n < count; ++n) {
                recordNumbered(0, n);
                ++appended;
            }
        });
        std::thread analyst([&] {
            while (appended < count || analysis.fetchOne())
                analysis.fetchOne();
        });
        for (int n = 1; n <= clears; ++n) { // spread over the recording
            while (appended < n * (count / clears))
                std::this_thread::yield();
            mHost->clear(true);
        }
        receiver.join();
        analyst.join();
        while (analysis.fetchOne()) {}
        QVector<qint64> all(count);
        std::iota(all.begin(), all.end(), 0);
        QCOMPARE(analysis.seen(), all);
    }

    std::unique_ptr<StoreUnderTest> mHost;
    DatachunkHandler &mStore;
    QObject mContext; // last: ends the connections first
};

#endif // CANOPENANALYSIS_TESTS_DATACHUNKHANDLERCONTRACT_H
