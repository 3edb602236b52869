// The part of RequestArea that file requests have.
#pragma once

// Frees the records of requests that an abandoned run left.
void FilesShutdown();
