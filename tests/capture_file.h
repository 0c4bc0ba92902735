// Reading a line capture back: the packets of a pcapng file as the capture
// writer lays it out (one section, one interface, enhanced packet blocks
// with a 4-byte pseudo-header), each block's framing checked on the way.
#ifndef ABCL_TESTS_CAPTURE_FILE_H
#define ABCL_TESTS_CAPTURE_FILE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

struct FilePacket {
    uint8_t direction = 0;  // 0 host to controller, 1 controller to host
    uint8_t kind = 0;       // 0 DF1 item, 1 remote frame, 2 unframed
    uint64_t timeNs = 0;    // wall clock
    std::vector<uint8_t> bytes;

    bool operator==(const FilePacket& other) const {
        return direction == other.direction && kind == other.kind && bytes == other.bytes;
    }
};

struct CaptureFile {
    std::string interfaceName;
    std::vector<FilePacket> packets;

    // The bytes of one direction, all packets joined.
    std::vector<uint8_t> stream(uint8_t direction) const {
        std::vector<uint8_t> out;
        for (const FilePacket& p : packets)
            if (p.direction == direction) out.insert(out.end(), p.bytes.begin(), p.bytes.end());
        return out;
    }
};

inline uint32_t CaptureU32(const std::vector<uint8_t>& b, std::size_t at) {
    return static_cast<uint32_t>(b[at] | b[at + 1] << 8 | b[at + 2] << 16) |
           static_cast<uint32_t>(b[at + 3]) << 24;
}

// Test failures for anything that is not the writer's layout.
inline CaptureFile ReadCaptureFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), {});
    CaptureFile file;
    std::size_t at = 0;
    for (int index = 0; at + 12 <= b.size(); ++index) {
        const uint32_t type = CaptureU32(b, at);
        const uint32_t length = CaptureU32(b, at + 4);
        if (length < 12 || length % 4 || at + length > b.size() ||
            CaptureU32(b, at + length - 4) != length) {
            ADD_FAILURE() << path << ": bad block at " << at;
            break;
        }
        if (index == 0) {
            EXPECT_EQ(type, 0x0A0D0D0Au);
        } else if (index == 1) {
            EXPECT_EQ(type, 1u);
            EXPECT_EQ(b[at + 8] | b[at + 9] << 8, 147);
            const std::size_t nameLength = b[at + 18] | b[at + 19] << 8;
            file.interfaceName.assign(b.begin() + static_cast<long>(at) + 20,
                                      b.begin() + static_cast<long>(at + 20 + nameLength));
        } else {
            EXPECT_EQ(type, 6u);
            const uint32_t captured = CaptureU32(b, at + 20);
            EXPECT_EQ(captured, CaptureU32(b, at + 24));
            FilePacket p;
            p.timeNs = static_cast<uint64_t>(CaptureU32(b, at + 12)) << 32 | CaptureU32(b, at + 16);
            p.direction = b[at + 28];
            p.kind = b[at + 29];
            p.bytes.assign(b.begin() + static_cast<long>(at) + 32,
                           b.begin() + static_cast<long>(at + 28 + captured));
            file.packets.push_back(std::move(p));
        }
        at += length;
    }
    EXPECT_EQ(at, b.size()) << path << ": bytes after the last block";
    return file;
}

#endif
