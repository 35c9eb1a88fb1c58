#include "MockOrvAppConfigService.h"
// The substitute is header-only; this unit keeps it compiled with the library's warnings.
