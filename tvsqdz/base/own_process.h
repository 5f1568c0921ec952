// Whether the calling process runs one of the product's own executables.
#pragma once

bool IsOwnProcess();
