#pragma once
// The node core's configuration variables. Each can be set by name through the
// host's configuration (environment, the tool's --config).

#include <cstdint>

#include "orvix/host/config.h"

namespace orvix::nodes {

extern ConfigVariable<bool> g_showValidationTime;
extern ConfigVariable<bool> g_testGetConnections;
extern ConfigVariable<int64_t> g_writeNodesTruncate;
extern ConfigVariable<bool> g_nodesSetValueIncStampForDerivedUserState;
extern ConfigVariable<bool> g_nodesUserStateUpdateLazyEvaluation;
extern ConfigVariable<bool> g_nodesUserStateUpdateLazyEvaluationDebugOutput;
extern ConfigVariable<int64_t> g_nodesUserStateUpdateLazyEvaluationFlags;
extern ConfigVariable<bool> g_nodesUserStateLazyEvaluationRunLazyPreInValidate;

// Makes sure the variables are registered: a program that links the library
// statically and names none of them would otherwise leave them out.
void RegisterConfigVariables();

}  // namespace orvix::nodes
