// A store file that reaches up into validation: the layer check must refuse it.
#include "validation/validation_queue.h"
