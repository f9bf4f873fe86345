#include "ber/ber_utils.h"
