// The empty list; see lstLib.h.
#include "lstLib.h"

void lstLibInit(void) {}

void lstInit(LIST* pList)
{
    pList->node.next = nullptr;
    pList->node.previous = nullptr;
    pList->count = 0;
}
