#include "orvix/nodes/config_variables.h"

namespace orvix::nodes {

ConfigVariable<bool> g_showValidationTime{"g_showValidationTime", false,
                                          "Outputs the time needed for node system validation."};
ConfigVariable<bool> g_testGetConnections{"g_testGetConnections", false,
                                          "Check GetConnections for consistency."};
ConfigVariable<int64_t> g_writeNodesTruncate{
    "g_writeNodesTruncate", 10000,
    "Truncate attribute values in GML output that exceed this number of characters.", 10,
    100000};
ConfigVariable<bool> g_nodesSetValueIncStampForDerivedUserState{
    "g_nodesSetValueIncStampForDerivedUserState", true,
    "If false then DON'T call IncUserStateStamp in SetValue for derived userstate attribs (those "
    "with GraphAttribute::FLAGS::USER_STATE and GraphAttribute::FLAGS::DERIVED)"};
ConfigVariable<bool> g_nodesUserStateUpdateLazyEvaluation{
    "g_nodesUserStateUpdateLazyEvaluation", false,
    "Enable EXPERIMENTAL deferred lazy evaluation state updates"};
ConfigVariable<bool> g_nodesUserStateUpdateLazyEvaluationDebugOutput{
    "g_nodesUserStateUpdateLazyEvaluationDebugOutput", false,
    "Enable Debug Output for EXPERIMENTAL deferred lazy evaluation state updates"};
ConfigVariable<int64_t> g_nodesUserStateUpdateLazyEvaluationFlags{
    "g_nodesUserStateUpdateLazyEvaluationFlags", 24,
    "Flags for deferred lazy evaluation state updates", 0, 65535};
ConfigVariable<bool> g_nodesUserStateLazyEvaluationRunLazyPreInValidate{
    "g_nodesUserStateLazyEvaluationRunLazyPreInValidate", true,
    "(Only used if g_nodesUserStateUpdateLazyEvaluation == true). If true then NODES_PRE are run "
    "in Validate. If false then they are run in LazyValidate (and Validate does nothing)"};

void RegisterConfigVariables() {
  // Naming the variables is enough: it keeps this unit, and so their
  // registration, in every program that calls here.
  static const void* const keep[] = {&g_showValidationTime, &g_testGetConnections,
                                     &g_writeNodesTruncate};
  (void)keep;
}

}  // namespace orvix::nodes
