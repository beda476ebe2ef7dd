// Prints the steps of the schedule that the machine ran last, with source lines.
#ifndef TSLB_EXPLORE_REPORT_H
#define TSLB_EXPLORE_REPORT_H

void print_steps();

#endif
