// Address parsing and the variable lists.
#ifndef FUNC_INITI_H
#define FUNC_INITI_H

#include "ab_controllogix_compactlogix.h"

int StringAddressToInt(int dataType, QString text);
// The same reading by splitting the text into pieces: StringAddressToInt's
// answer for texts outside the plain form of digits, signs, ':' and '/'.
int StringAddressToIntBySplitting(int dataType, const QString& text);
void WhetherGroup(int total, int max, RW_VAR* var, QList<RW_VAR>* list);
void Bubble_Sort(QList<RW_VAR>* list);

// Splitting a count into requests of at most maxCount elements: the number of
// pieces and the count of the last one. A zero maxCount gives one piece.
struct PieceSplit {
    int pieces;
    int lastCount;
};
PieceSplit SplitIntoPieces(int total, int maxCount);

#endif
