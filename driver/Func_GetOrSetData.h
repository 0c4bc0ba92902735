// Host access to the local image.
#ifndef FUNC_GETORSETDATA_H
#define FUNC_GETORSETDATA_H

#include "ab_controllogix_compactlogix.h"

#include <cstdint>

int ExtendFindSameVar(int a, int b, int c);
void WriteDataToLocal(RW_VAR* var);

void GetBitFromUS(QByteArray* out, const uint16_t* area, int index, int n);
void GetWordFromUS(QByteArray* out, const uint16_t* area, int index, int n);
void GetWordFromUI(QByteArray* out, const uint32_t* area, int index, int n);
void SetBitToUS(int index, uint16_t* area, const QByteArray& in, int n);
void SetWordToUS(int index, uint16_t* area, const QByteArray& in, int n);
void SetWordToUI(int index, uint32_t* area, const QByteArray& in, int n);

#endif
