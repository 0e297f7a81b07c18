// cansender INTERFACE LOG: sends the frames of a candump log to an interface of the plug-in virtualcan, and ends with 0 when the
// bus has all of them: when they were received over a second connection. (Who disconnects right after writing takes with him
// what is still on its way to the bus; neither framesWritten() nor own frames tell when it has got there.)
#include "candumpreader.h"

#include <QCanBus>
#include <QCanBusDevice>
#include <QCoreApplication>
#include <QFile>
#include <QTimer>
#include <QVariant>

#include <memory>

namespace {

constexpr int giveUpMs = 20000;

class Frames final : public FrameSink
{
public:
    QVector<QCanBusFrame> list;

    void frame(quint8, const CAN::CanRxMessage &msg) override
    {
        const CAN::CanMessage &message = msg.mFrame;
        const QByteArray data(reinterpret_cast<const char *>(message.mPayload), message.mDataLength);
        QCanBusFrame frame(message.mIdentifier, data);
        frame.setExtendedFrameFormat(message.mFlags & CAN::CanMessage::ExtendedId);
        frame.setFlexibleDataRateFormat(message.mFlags & CAN::CanMessage::FdFormat);
        if (message.mFlags & CAN::CanMessage::RemoteRequest)
            frame.setFrameType(QCanBusFrame::RemoteRequestFrame);
        if (message.mFlags & CAN::CanMessage::ErrorFrame) {
            frame.setFrameType(QCanBusFrame::ErrorFrame);
            frame.setError(QCanBusFrame::FrameErrors(message.mIdentifier));
        }
        list += frame;
    }
    void badPiece(quint64, const char *problem, std::string_view) override { qFatal("%s", problem); }
};

std::unique_ptr<QCanBusDevice> connected(const QString &interface)
{
    std::unique_ptr<QCanBusDevice> device(QCanBus::instance()->createDevice(QStringLiteral("virtualcan"), interface));
    if (!device)
        qFatal("there is no plug-in virtualcan");
    device->setConfigurationParameter(QCanBusDevice::CanFdKey, true);
    device->connectDevice();
    return device;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    QFile log(arguments.at(2));
    if (!log.open(QIODevice::ReadOnly))
        return 1;
    const QByteArray text = log.readAll();
    Frames frames;
    CandumpReader reader(frames);
    reader.feed(text.constData(), std::size_t(text.size()));

    const std::unique_ptr<QCanBusDevice> witness = connected(arguments.at(1));
    const std::unique_ptr<QCanBusDevice> sender = connected(arguments.at(1));
    int missing = frames.list.size();
    QObject::connect(witness.get(), &QCanBusDevice::framesReceived, [&] {
        missing -= witness->readAllFrames().size();
        if (missing == 0)
            QCoreApplication::quit();
    });
    const auto send = [&] {
        if (witness->state() != QCanBusDevice::ConnectedState || sender->state() != QCanBusDevice::ConnectedState)
            return;
        for (const QCanBusFrame &frame : std::as_const(frames.list)) {
            if (!sender->writeFrame(frame))
                QCoreApplication::exit(1);
        }
    };
    QObject::connect(witness.get(), &QCanBusDevice::stateChanged, send);
    QObject::connect(sender.get(), &QCanBusDevice::stateChanged, send);
    QTimer::singleShot(giveUpMs, QCoreApplication::instance(), [] { QCoreApplication::exit(1); });
    return QCoreApplication::exec();
}
