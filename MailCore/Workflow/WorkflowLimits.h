// WorkflowLimits: the bounds on what an agent may propose as a workflow and
// on what the workflow engine may do per hour. A plain value; the defaults
// are the product's limits.
#pragma once

namespace mailcore {

struct WorkflowLimits {
    int maxWorkflowsPerHarness = 25;
    int maxNameLength = 80;
    int maxNoteLength = 500;
    int maxConditions = 12;
    int maxActions = 8;
    int maxValuesPerCondition = 50;
    int maxValueLength = 200;
    int maxLabelLength = 40;
    int maxTemplateLength = 5000;
    int maxInstructionLength = 1000;
    int maxNoReplyHours = 720;
    int maxExtractFields = 20;
    int effectsPerHour = 60;
    int draftsPerHour = 10;
    int maxDigestMessages = 50;
};

}  // namespace mailcore
