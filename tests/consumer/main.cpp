// Feeds a read of 1018:01 of node 5 to the analysis and asserts that its value is found, by way of both libraries.
#include "inmemory/inmemorycanopennetwork.h"
#include "inmemory/inmemorydatachunkhandler.h"
#include "network/canopennetworkanalyzer.h"

#include <QCoreApplication>

#include <cstdio>
#include <future>

namespace {

CAN::CanMessage sdoFrame(quint32 identifier, quint8 command, quint8 firstValueByte)
{
    CAN::CanMessage frame;
    frame.mIdentifier = identifier;
    frame.mDataLength = 8;
    frame.mPayload[0] = command;
    frame.mPayload[1] = 0x18;
    frame.mPayload[2] = 0x10;
    frame.mPayload[3] = 0x01;
    frame.mPayload[4] = firstValueByte;
    return frame;
}

InMemory::ObjectValues analyse(InMemoryDatachunkHandler &recording)
{
    InMemoryCANopenNetwork network(0);
    std::promise<void> end; // outlives the analyzer, in whose thread it is kept
    CANopenNetworkAnalyzer analyzer(&network, &recording);
    QObject::connect(
        &recording, &InMemoryDatachunkHandler::endOfLineReached, &analyzer,
        [&analyzer, &end] {
            analyzer.stop();
            end.set_value();
        },
        Qt::DirectConnection);
    analyzer.setAnalyzing(true);
    end.get_future().wait();
    return network.objectValues();
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    InMemoryDatachunkHandler recording;
    recording.append(0, sdoFrame(0x605, 0x40, 0), CanTimeStamp::fromNSecs(1000000));
    recording.append(0, sdoFrame(0x585, 0x43, 42), CanTimeStamp::fromNSecs(2000000));

    const auto values = analyse(recording).value({5, 0x1018, 1});
    const bool found = values.size() == 1 && SDO::sameValue(values.first().value, qlonglong(42));
    std::puts(found ? "1018:01 of node 5 is 42" : "The value was not found.");
    return found ? 0 : 1;
}
