// The shared library is linked from the vexo_core archive as a whole; this
// unit only makes sure the public header compiles as part of the library.
#include "vexo.h"
