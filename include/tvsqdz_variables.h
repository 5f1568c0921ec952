/* tvsqdz_variables.h: the status variables that every printer has.
 *
 * TVS_BUILT_IN_VARIABLES(X) expands X(name, type, size) for each, in the order of their names (letters without regard to
 * case). The size is that of the value in bytes as the A functions exchange it; 0 where it varies.
 *
 *   NUMBER     32-bit number
 *   STRING     NUL-terminated text in a field of that size
 *   RECORD     fixed record; tvsqdz_records.h has the layouts
 *   VARIABLE   variable-length value
 *   COMPOSITE  the values of other variables, one after the other
 *
 * A printer model may replace a variable by one of its own with another type and size. */
#ifndef TVSQDZ_VARIABLES_H
#define TVSQDZ_VARIABLES_H

#define TVS_BUILT_IN_VARIABLES(X) \
    X(AccessControlList, VARIABLE, 0) \
    X(ClientStatus, NUMBER, 4) \
    X(CompulsivePolling, NUMBER, 4) \
    X(CoverageInfo, RECORD, 24) \
    X(CurrentFeeder, NUMBER, 4) \
    X(CurrentStatus, COMPOSITE, 24) \
    X(DeleteJobId, NUMBER, 4) \
    X(ErrCoverOpen, NUMBER, 4) \
    X(ErrFormRegistError, NUMBER, 4) \
    X(ErrNoPaper, RECORD, 4) \
    X(ErrNoPaper2, COMPOSITE, 8) \
    X(ErrPaperJam, NUMBER, 4) \
    X(ErrPaperSizeError, NUMBER, 4) \
    X(ErrPaperState, RECORD, 4) \
    X(JobStatus, NUMBER, 4) \
    X(LMFunction, NUMBER, 4) \
    X(LMStatus, NUMBER, 4) \
    X(PageCount, NUMBER, 4) \
    X(Port, RECORD, 260) \
    X(PortEx, COMPOSITE, 264) \
    X(PowerSaveEnd, NUMBER, 4) \
    X(PrinterBinConfig, VARIABLE, 0) \
    X(PrinterDisplay, RECORD, 132) \
    X(PrinterDisplay2, RECORD, 260) \
    X(PrinterExtConfig, NUMBER, 4) \
    X(PrinterExtStatus, NUMBER, 4) \
    X(PrinterFontInfo, VARIABLE, 0) \
    X(PrinterLocation, STRING, 260) \
    X(PrinterManufacturer, STRING, 64) \
    X(PrinterMemory, NUMBER, 4) \
    X(PrinterModel, STRING, 64) \
    X(PrinterName, STRING, 260) \
    X(PrinterOptConfig, VARIABLE, 0) \
    X(PrinterQueue, VARIABLE, 0) \
    X(PrinterStatus, RECORD, 12) \
    X(PrinterStatus2, NUMBER, 4) \
    X(PrinterStatusEx, COMPOSITE, 32) \
    X(PrintingJobInfo, RECORD, 296) \
    X(PrintingJobInfo2, COMPOSITE, 320) \
    X(PrintingMyJob, NUMBER, 4) \
    X(PrintingStatus, RECORD, 8) \
    X(ReadRequest, STRING, 32) \
    X(ReceivePort, NUMBER, 4) \
    X(RefreshStatus, STRING, 260) \
    X(RunningPSW, NUMBER, 4) \
    X(RWResult, NUMBER, 4) \
    X(SendingJobInfo, RECORD, 292) \
    X(ServerOS, RECORD, 12) \
    X(ServiceTag, STRING, 32) \
    X(SetJob, NUMBER, 4) \
    X(SpoolerQueue, VARIABLE, 0) \
    X(SpoolerStatus, NUMBER, 4) \
    X(SpoolingMyJob, NUMBER, 4) \
    X(TerminateManager, NUMBER, 4) \
    X(UserAuthority, NUMBER, 4) \
    X(WarmupRemains, NUMBER, 4) \
    X(WriteRequest, STRING, 32)

#endif
