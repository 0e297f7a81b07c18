#include "livesource.h"

#include <QCanBus>
#include <QCanBusDevice>
#include <QCanBusFrame>
#include <QVariant>

#include <algorithm>
#include <chrono>

namespace {

// Plug-ins that drive an adapter by themselves want bit rates with CAN FD, which nobody gave; to these, bit rates are none.
bool canSwitchOnFd(const QString &plugin)
{
    return plugin == QLatin1String("socketcan") || plugin == QLatin1String("virtualcan");
}

CAN::CanMessage toMessage(const QCanBusFrame &frame)
{
    const bool isError = frame.frameType() == QCanBusFrame::ErrorFrame;
    const QByteArray payload = frame.payload();
    const int length = std::min<int>(payload.size(), CAN::CanMessage::maxPayload);
    CAN::CanMessage message;
    message.mIdentifier = isError ? quint32(frame.error()) : frame.frameId();
    message.mDataLength = quint8(length);
    if (isError)
        message.mFlags = CAN::CanMessage::ErrorFrame;
    else if (frame.hasExtendedFrameFormat())
        message.mFlags = CAN::CanMessage::ExtendedId;
    if (frame.hasFlexibleDataRateFormat())
        message.mFlags |= CAN::CanMessage::FdFormat;
    if (frame.frameType() == QCanBusFrame::RemoteRequestFrame)
        message.mFlags |= CAN::CanMessage::RemoteRequest;
    else
        std::copy_n(payload.cbegin(), length, message.mPayload);
    return message;
}

qint64 usecsOf(const QCanBusFrame::TimeStamp &time)
{
    return time.seconds() * 1000000 + time.microSeconds();
}

} // namespace

LiveSource::~LiveSource() = default;

void LiveSource::open(const QString &plugin, const QString &interface)
{
    mName = plugin + QLatin1Char(':') + interface;
    const QStringList plugins = QCanBus::instance()->plugins();
    if (!plugins.contains(plugin)) {
        const QString known = plugins.isEmpty() ? QStringLiteral("none at all") : plugins.join(QLatin1String(", "));
        return fail(QStringLiteral("there is no CAN bus plug-in %1, only %2").arg(plugin, known));
    }
    QString problem;
    mDevice = QCanBus::instance()->createDevice(plugin, interface, &problem);
    if (!mDevice)
        return fail(problem);
    mDevice->setParent(this);
    connect(mDevice, &QCanBusDevice::framesReceived, this, &LiveSource::takeFrames);
    connect(mDevice, &QCanBusDevice::stateChanged, this, &LiveSource::onStateChanged);
    connect(mDevice, &QCanBusDevice::errorOccurred, this, [this] { fail(mDevice->errorString()); });
    if (canSwitchOnFd(plugin))
        mDevice->setConfigurationParameter(QCanBusDevice::CanFdKey, true);
    if (!mDevice->connectDevice())
        fail(mDevice->errorString());
}

void LiveSource::close()
{
    if (!mDevice)
        return;
    takeFrames();
    mDevice->disconnect(this);
    if (mDevice->state() != QCanBusDevice::UnconnectedState)
        mDevice->disconnectDevice();
}

void LiveSource::fail(const QString &what)
{
    if (mHasFailed)
        return;
    mHasFailed = true;
    const QString text = what.isEmpty() ? QStringLiteral("the connection failed") : what;
    const QString stop = text.endsWith(QLatin1Char('.')) ? QString() : QStringLiteral(".");
    Q_EMIT failed(QStringLiteral("Cannot receive from %1: %2%3").arg(mName, text, stop));
}

void LiveSource::onStateChanged()
{
    if (mDevice->state() == QCanBusDevice::ConnectedState)
        Q_EMIT connected();
    else if (mDevice->state() == QCanBusDevice::UnconnectedState)
        fail(QStringLiteral("the connection was lost"));
}

void LiveSource::takeFrames()
{
    const QVector<QCanBusFrame> frames = mDevice->readAllFrames();
    for (const QCanBusFrame &received : frames) {
        if (received.frameType() == QCanBusFrame::UnknownFrame || received.frameType() == QCanBusFrame::InvalidFrame)
            continue;
        const CanTimeStamp time = timeOf(usecsOf(received.timeStamp()));
        Q_EMIT frame(toMessage(received), time);
    }
}

CanTimeStamp LiveSource::timeOf(qint64 driverUsecs)
{
    if (!mHasDriverTime)
        mHasDriverTime = driverUsecs != 0;
    if (*mHasDriverTime)
        return CanTimeStamp::fromNSecs(driverUsecs * 1000);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return CanTimeStamp::fromNSecs(std::chrono::nanoseconds(now).count());
}
