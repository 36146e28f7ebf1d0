#pragma once

/// The self-test role's three steps.

void createTestFile();
void testMoveFile();
void testInstantVersion();
