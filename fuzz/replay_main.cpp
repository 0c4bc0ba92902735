// Runs a fuzz target's entry point once on every file named on the command
// line, or on every file of every directory named, in name order. This is how
// the committed corpus is replayed in the test suite by any compiler, without
// libFuzzer: a broken invariant aborts, a sanitizer reports.
#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QStringList>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
        return false;
    }
    const QByteArray bytes = file.readAll();
    // A copy of exactly the file's size, so that reading past the input is seen.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    int replayed = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        QStringList files;
        if (QFileInfo(arg).isDir()) {
            const QDir dir(arg);
            for (const QString& name : dir.entryList(QDir::Files, QDir::Name))
                files << dir.filePath(name);
        } else {
            files << arg;
        }
        for (const QString& f : files) {
            ok = Replay(f) && ok;
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    if (replayed == 0) {
        std::fprintf(stderr, "no input found\n");
        return 1;
    }
    return ok ? 0 : 1;
}
