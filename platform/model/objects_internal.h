// Objects, for the scheduler.
#pragma once

// The run's first thread is no one's to release: it is left out of counts and leak checks.
void ObjectHide(const void *Body);
