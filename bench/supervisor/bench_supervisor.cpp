// Backend preparation cost: the two digests of a normal start (shipped file
// and private copy) over a backend of 50 MB, and a whole kept-copy check.
#include "BinaryPreparation.h"

#include <benchmark/benchmark.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <random>

using tarnwick::supervisor::BinaryPreparation;

namespace {

struct Backend {
    QTemporaryDir dir;
    QString shipped;
    QString data;

    explicit Backend(qint64 size) {
        shipped = dir.filePath("resources/kovrit-linux-amd64");
        data = dir.filePath("data");
        QDir().mkpath(dir.filePath("resources"));
        QByteArray bytes(size, '\0');
        std::mt19937_64 random(42);
        for (qint64 i = 0; i + 8 <= size; i += 8) {
            const std::uint64_t value = random();
            std::memcpy(bytes.data() + i, &value, 8);
        }
        bytes.replace(0, 4, QByteArray::fromHex("7f454c46"));
        QFile file(shipped);
        file.open(QIODevice::WriteOnly);
        file.write(bytes);
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    BinaryPreparation preparation() const {
        return BinaryPreparation(
            [](const QString &) {},
            [this](const QString &) -> std::optional<QString> { return shipped; },
            [this]() -> std::optional<QString> { return data; });
    }
};

void TwoDigestsOf50MB(benchmark::State &state) {
    Backend backend(50 * 1000 * 1000);
    const auto copy = backend.preparation().getWritableBinaryURL("kovrit-linux-amd64");
    for (auto _ : state) {
        benchmark::DoNotOptimize(BinaryPreparation::sha256OfFile(backend.shipped));
        benchmark::DoNotOptimize(BinaryPreparation::sha256OfFile(*copy));
    }
    state.SetBytesProcessed(state.iterations() * 2 * 50'000'000);
}
BENCHMARK(TwoDigestsOf50MB)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a normal start pays: the kept copy is validated and both digests are
// taken (side by side).

void KeptCopyCheckOf50MB(benchmark::State &state) {
    Backend backend(50 * 1000 * 1000);
    const BinaryPreparation preparation = backend.preparation();
    preparation.getWritableBinaryURL("kovrit-linux-amd64");
    for (auto _ : state) {
        benchmark::DoNotOptimize(preparation.getWritableBinaryURL("kovrit-linux-amd64"));
    }
}
BENCHMARK(KeptCopyCheckOf50MB)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
