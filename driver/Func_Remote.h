// Remote-mode request builders.
#ifndef FUNC_REMOTE_H
#define FUNC_REMOTE_H

#include "ab_controllogix_compactlogix.h"

void Remote_ReadVar(RW_VAR* var);
void Remote_WriteVar(RW_VAR* var);

#endif
