// The ten exported functions (filled in with the engine object).
#include "glidewell/dfrg.h"
