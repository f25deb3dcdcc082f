// What tqctl prints of units, for people and for scripts.
#pragma once

#include "ctl/survey.h"

namespace ctl {

// A table with a heading. Long texts are cut to fit into so many columns; with 0 or less into any.
void PrintTable(Survey &survey, int columns);

// One line for a unit, its columns separated by tabs: name, model, project, ip, prefix, gateway,
// mac, port, note, protocol, interface, marks.
void PrintPlain(const Unit &unit);

// One line for a unit, made from a text in which ${key} stands for a value and \t, \n and \\ for
// what they usually do. CheckFormat ends the program when there is another key in it.
void CheckFormat(const char *format);
void PrintFormat(const char *format, const Unit &unit);

// One JSON object with all units. `event` may be null.
void PrintJson(const Survey &survey, const Unit *units, int count, const char *event);

// All that a unit says, one line for each value.
void PrintUnit(const Unit &unit);

// Settings in a few words.
struct SettingsText {
    char text[96];
};
SettingsText DescribeSettings(Address ip, int prefix, Address gateway, Address dns);

// Says on standard error what the marks of a list mean, and who did not answer.
void ExplainMarks(Survey &survey);

}  // namespace ctl
