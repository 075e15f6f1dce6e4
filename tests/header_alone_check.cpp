// include/zevd610.h on its own as C++: the same check as C.
#include "header_alone_check.c"
