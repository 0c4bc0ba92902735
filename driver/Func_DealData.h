// Storing reply data into the local image.
#ifndef FUNC_DEALDATA_H
#define FUNC_DEALDATA_H

#include <QtCore/QByteArray>
#include <cstdint>

void SaveToLocalDataErea(const QByteArray& reply);
// Hardened build: stores the data field of a matched reply, DLE doubling
// already undone, element by element from the request's address.
void SaveDataFieldToLocalDataErea(const QByteArray& data);
void SaveWordToUS(const QByteArray& reply, uint16_t* area);
void SaveWordToUI(const QByteArray& reply, uint32_t* area);
void SaveT_C_PRE(const QByteArray& reply, uint16_t* area);
void SaveT_C_ACC(const QByteArray& reply, uint16_t* area);

#endif
