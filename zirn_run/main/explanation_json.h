#ifndef MAIN_EXPLANATION_JSON_H
#define MAIN_EXPLANATION_JSON_H

#include <string>

#include "explanation/explanation.h"

// The explanation as one line of JSON, as zirn_run/explanation/explanation.schema.json describes it. `file`: that it
// was read from; `name`: where the record has none.
std::string json_of(const explanation::Explanation& explanation, const std::string& file,
                    const std::string& name);

// The table of causes, one object.
std::string json_of_causes();

#endif
