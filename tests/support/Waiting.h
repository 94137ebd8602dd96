#pragma once

#include <zel/tasks/BaseTask.h>

#include <QString>

#include <functional>

/// Handles everything that is posted to this thread, deletions included. What has not happened then does not happen.
void drainEvents();

/// Waits without handling any event until \a condition holds. False when a generous time has passed.
bool pollUntil(const std::function<bool()> &condition);

/// Makes every warning of Qt a failure of the running test function.
void failOnQtWarnings();

/**
 * Runs \a operation again and again on a new task, which a handler deletes at the first, the second, … event.
 *
 * Returns the event at which it was deleted and what the task emitted after that; empty is how it should be.
 */
QString eventsAfterDeletion(const std::function<zel::BaseTask *()> &makeTask,
                            const std::function<void(zel::BaseTask *)> &operation);
