#include "vectorize/VectorTrace.h"
