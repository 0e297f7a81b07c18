// Replays seeds, or findings, without a fuzzer: fuzz_replay_TARGET FILE-OR-FOLDER...

#include "fuzzing.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

namespace {

int replay(const QString &path)
{
    QFile file(path);
    FUZZ_REQUIRE(file.open(QIODevice::ReadOnly));
    std::fprintf(stderr, "%s\n", qPrintable(path)); // the last one printed is the culprit
    const QByteArray input = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.constData()), std::size_t(input.size()));
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QString path = QFile::decodeName(argv[i]);
        if (!QFileInfo(path).isDir()) {
            replayed += replay(path);
            continue;
        }
        QDirIterator inputs(path, QDir::Files, QDirIterator::Subdirectories);
        while (inputs.hasNext())
            replayed += replay(inputs.next());
    }
    std::fprintf(stderr, "%d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
