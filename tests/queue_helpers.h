// Records and queue shortcuts shared by the scheduler and reply-processing
// tests: requests are put straight into the queues (mode 1: as they are).
#ifndef ABCL_QUEUE_HELPERS_H
#define ABCL_QUEUE_HELPERS_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QString>

// A word read of 'N' file 7 (aux2 0: the reply carries data).
inline RW_VAR WordRead(int varId, int element, int count, int station = 1, int linkNo = 0) {
    RW_VAR v;
    v.varId = varId;
    v.varSubId = -1;
    v.aux2 = 0;
    v.linkNo = linkNo;
    v.dataType = ABCL_WORD_B;
    v.addrText = QString("7:%1").arg(element);
    v.address = 7 * 256 + element;
    v.station = station;
    v.count = count;
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
