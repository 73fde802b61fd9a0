#ifndef BOARDKIT_CTL_GROUPS_H
#define BOARDKIT_CTL_GROUPS_H

class Program;

// Each adds its verbs to the command line; Program.h says how to add a group.
void AddSerial(Program& program);
void AddMemory(Program& program);
void AddNet(Program& program);
void AddWatchdog(Program& program);
void AddReport(Program& program);
void AddRun(Program& program);
void AddExplain(Program& program);
void AddCompletion(Program& program);

#endif
