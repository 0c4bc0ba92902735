// Request frames exactly as the driver sends them, with what a controller
// must read from each. Shared by the framing, CIP and controller tests.
#ifndef PLCSIM_DRIVER_FRAMES_H
#define PLCSIM_DRIVER_FRAMES_H

#include <cstdint>
#include <string>

struct DriverFrame {
    const char* name;
    const char* hex;
    int doubled;  // DLE bytes doubled in the frame
    uint8_t tns;
    uint8_t service;
    const char* tag;
    char letter;
    int file;
    uint32_t element;
    uint16_t count;      // element count field (reads and writes)
    uint16_t dataType;   // writes
    const char* values;  // write data, hex
    uint32_t orMask;     // read-modify-write
    uint32_t andMask;
};

inline const DriverFrame kDriverFrames[] = {
    {"ReadN7Element0Count10",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 "
     "29 00 00 00 0A 00 00 00 00 00 00 00 10 03 78",
     0, 0x21, 0x52, "N007", 'N', 7, 0, 10, 0, "", 0, 0},
    {"ReadB3Element16Count2",
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 33 "
     "29 00 10 10 00 02 00 00 00 00 00 00 00 10 03 9C",
     1, 0x05, 0x52, "B003", 'B', 3, 16, 2, 0, "", 0, 0},
    {"ReadF8Element4OneReal",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 "
     "29 00 04 00 01 00 00 00 00 00 00 00 10 03 84",
     0, 0x21, 0x52, "F008", 'F', 8, 4, 1, 0, "", 0, 0},
    {"SetBitB3Element10Bit5",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 "
     "29 00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C",
     0, 0x21, 0x4E, "B003", 'B', 3, 10, 0, 0, "", 0x0020, 0xFFFF},
    {"ClearBitN7Element0Bit4",
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 "
     "29 00 00 00 02 00 00 00 EF FF 00 00 10 03 B2",
     0, 0x05, 0x4E, "N007", 'N', 7, 0, 0, 0, "", 0x0000, 0xFFEF},
    {"SetBitN7Element0Bit4",
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 "
     "29 00 00 00 02 00 10 10 00 FF FF 00 00 10 03 92",
     1, 0x05, 0x4E, "N007", 'N', 7, 0, 0, 0, "", 0x0010, 0xFFFF},
    {"WriteN7Elements2And3",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 "
     "29 00 02 00 C3 00 02 00 00 00 00 00 34 12 10 10 00 10 03 64",
     1, 0x21, 0x53, "N007", 'N', 7, 2, 2, 0x00C3, "34 12 10 00", 0, 0},
    {"WriteB3Element0Value5",
     "10 06 10 02 00 00 0B 00 42 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 42 30 30 33 "
     "29 00 00 00 C3 00 01 00 00 00 00 00 05 00 10 03 A7",
     0, 0x42, 0x53, "B003", 'B', 3, 0, 1, 0x00C3, "05 00", 0, 0},
    {"WriteF8Element4Value1p5",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 "
     "29 00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA",
     0, 0x21, 0x53, "F008", 'F', 8, 4, 1, 0x00CA, "00 00 C0 3F", 0, 0},
    {"WriteF8Elements0And1",
     "10 06 10 02 00 00 0B 00 0A 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 "
     "29 00 00 00 CA 00 02 00 00 00 00 00 00 00 80 3F 00 00 00 40 10 03 D4",
     0, 0x0A, 0x53, "F008", 'F', 8, 0, 2, 0x00CA, "00 00 80 3F 00 00 00 40", 0, 0},
    {"WriteF8Element1Zero",
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 "
     "29 00 01 00 CA 00 01 00 00 00 00 00 00 00 00 00 10 03 BC",
     0, 0x21, 0x53, "F008", 'F', 8, 1, 1, 0x00CA, "00 00 00 00", 0, 0},
};

#endif
