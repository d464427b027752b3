// The operations that are tortured.
#pragma once

#include <memory>
#include <vector>

#include "tests/torture/trial.h"

std::unique_ptr<Scenario> fullBackup();
std::unique_ptr<Scenario> incrementalBackup();
std::unique_ptr<Scenario> differentialBackup();
std::unique_ptr<Scenario> restoreWithActivation();
std::unique_ptr<Scenario> restoreOfDeletedDocuments();
std::unique_ptr<Scenario> restoreOfChangedDocuments();
std::unique_ptr<Scenario> recovery();

// Restores one database in an open restore, as a host that has it in its store: announces its
// directory and itself, writes it where the module says, and finishes it.
bool restoreDatabase(Trial& trial, const std::string& name);
