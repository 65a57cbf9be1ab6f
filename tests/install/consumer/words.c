/* Functions of a program with those names of the library that are common words, except
   createPidFile(), which consumer.c calls. */
#include <stdio.h>
#include <stdlib.h>

#define OWN(word)                          \
    void word(void) {                      \
        puts("the library called " #word); \
        abort();                           \
    }

/* clang-format off */
OWN(CalculateTreeArraySize) OWN(DeleteLeafNode) OWN(balanceup) OWN(cmdLineErr) OWN(createnode)
OWN(errExit) OWN(errExitEN) OWN(errMsg) OWN(err_exit) OWN(fatal) OWN(findinsertionpoint)
OWN(findreplacement) OWN(getbalance) OWN(inordernext) OWN(inorderprevious) OWN(leftmost)
OWN(list_free) OWN(list_free_items) OWN(lockRegion) OWN(lockRegionWait) OWN(name2string)
OWN(p_compare) OWN(recalculateheight) OWN(regionIsLocked) OWN(rightmost) OWN(rotateleft)
OWN(rotateright) OWN(strhash) OWN(string2name) OWN(swapnodes) OWN(usageErr)
