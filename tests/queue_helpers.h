// Records and queue shortcuts shared by the scheduler and reply-processing
// tests: requests are put straight into the queues (mode 1: as they are).
#ifndef ABCL_QUEUE_HELPERS_H
#define ABCL_QUEUE_HELPERS_H

#include "test_support.h"

#include <QtCore/QString>

#include <cstdint>

// A one-word-wide request to 'N' file 7 as the host would queue it.
inline RW_VAR WordRecord(int varId, int varSubId, int aux2, int element, int count, int station,
                         int linkNo) {
    return RecordBuilder()
        .Ids(varId, varSubId)
        .Host(aux2, 0)
        .Link(linkNo)
        .Texts(QString("7:%1").arg(element))
        .At(ABCL_WORD_B, 7 * 256 + element, count, station);
}

// A word read (aux2 0: the reply carries data).
inline RW_VAR WordRead(int varId, int element, int count, int station = 1, int linkNo = 0) {
    return WordRecord(varId, -1, 0, element, count, station, linkNo);
}

// A one-word write (aux2 1: the reply only confirms), value low byte first.
inline RW_VAR WordWrite(int varId, int element, uint16_t value, int station = 1, int linkNo = 0) {
    RW_VAR v = WordRecord(varId, 0, 1, element, 1, station, linkNo);
    v.data.append(static_cast<char>(value & 0xFF));
    v.data.append(static_cast<char>(value >> 8));
    return v;
}

inline int QueueWrite(RW_VAR v) {
    return AddListWriteVar(&v, 1);
}
inline int QueueOnce(RW_VAR v) {
    return AddListOnceReadVar(&v, 1);
}
inline int QueueCyclic(RW_VAR v) {
    return AddListReadVar(&v);
}

#endif
