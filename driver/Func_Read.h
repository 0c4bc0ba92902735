// Direct-mode read request builders.
#ifndef FUNC_READ_H
#define FUNC_READ_H

#include "ab_controllogix_compactlogix.h"

void ReadRegister(RW_VAR* var);
void ReadAnalog(RW_VAR* var);
void ReadAnalog_F(RW_VAR* var);

#endif
