// The effective connections of a port over levels and layers.

#include <gtest/gtest.h>

#include "store/node_system_impl.h"
