#ifndef CANOPENANALYSIS_FUZZ_FUZZING_H
#define CANOPENANALYSIS_FUZZ_FUZZING_H

#include "support/canrecords.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// What the fuzz targets share. A target defines LLVMFuzzerTestOneInput(); fuzzing.cpp has LLVMFuzzerInitialize(), which makes
/// the application object. A broken property and a warning of Qt end the process, so the fuzzer keeps the input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

/// A property that holds whatever was fed.
#define FUZZ_REQUIRE(property) ((property) ? static_cast<void>(0) : fuzzFailed(#property, __FILE__, __LINE__))
[[noreturn]] void fuzzFailed(const char *property, const char *file, int line);

/// One step of an input: a frame, or something that the host does. Twelve bytes each, so that a mutation changes a step and
/// leaves its neighbours alone; seeds/make writes the same layout.
///
///     0        0feeffff   frame: flags (remote, error, extended are bits 5, 6, 4), function code
///              1ccccccc   action c of the target
///     1        xnnnnnnn   node-ID; x: the identifier has more than eleven bits
///     2        time since the step before, in ms, signed
///     3        data length; CAN FD above 8
///     4 to 11  payload; of a longer frame it is repeated
struct FuzzStep
{
    bool isAction = false;
    quint8 action = 0;
    quint8 argument = 0; ///< byte 1
    qint8 msecs = 0;
    quint64 number = 0; ///< the payload as a number
    CAN::CanMessage frame;
};

/// At most \a limit steps; an incomplete one at the end is left out.
std::vector<FuzzStep> fuzzSteps(const std::uint8_t *data, std::size_t size, std::size_t limit = 1000);

#endif // CANOPENANALYSIS_FUZZ_FUZZING_H
