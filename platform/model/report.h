// The record of a run for a person to read: who did what, to which request, lock or event, and from
// where in the code. It is kept only in a run that is to be explained (RunOptions::Explain), which
// repeats one that was seen to fail; the runs that search pay nothing for it.
#pragma once

#include <string>
#include <vector>

#include "platform/model/executor.h"
#include "platform/model/thread_object.h"

extern bool ReportOn;

void ReportBoot(bool On);

// With ReportOn: what happens.
void ReportWindow(bool Open);
void ReportNote(const char *What, const volatile void *Object, uint64_t A, uint64_t B);
void ReportPoint(SwitchReason Reason, const volatile void *Object);
void ReportPreempted(PKTHREAD From, PKTHREAD To, SwitchReason Reason, const volatile void *Object);
void ReportBlocked(PKTHREAD From, PKTHREAD To);
void ReportGoesOn(PKTHREAD To);  // when another has ended

// The record from the opening of the window on, without what lies far from any change of threads in
// it and does not concern Object.
std::string ReportText(const volatile void *Object);

// In any run: one of the last steps of a run that does not end, and what these steps were.
void ReportSpin(PKTHREAD Thread, SwitchReason Reason, const volatile void *Object);
std::string ReportSpins();

// With ReportOn: file, line and routine of a place in the driver or a test; empty when not known.
std::string ReportPlaceOf(const void *Place);
// The name given with VerifierName to the object or to what it lies in. When there is none: with
// ReportOn a number behind Kind, otherwise nothing.
std::string ReportNameOf(const volatile void *Object, const char *Kind);
// Memory is given back: its names go.
void ReportForget(const void *Low, size_t Bytes);
