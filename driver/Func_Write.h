// Direct-mode write request builders.
#ifndef FUNC_WRITE_H
#define FUNC_WRITE_H

#include "ab_controllogix_compactlogix.h"

void WriteRegister(RW_VAR* var);
void WriteBool(RW_VAR* var);
void WriteAnalog(RW_VAR* var);
void WriteAnalog_F(RW_VAR* var);

#endif
