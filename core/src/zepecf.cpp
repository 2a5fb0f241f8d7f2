// zepecf.cpp - look-ups in the catalogue tables generated from data/.
#include "zepecf.h"

#include <string.h>

#include "zepcatalogue.h"

using namespace zepcat;

namespace {

// The set of a code, or null for set 0 and unknown sets.
const EcfSet* setOf(Uint32 code) {
    Uint32 set = ECF_SET_OF(code);
    return set == 1 ? &g_ecfSets[1] : nullptr;
}

// The row index of a code within its set, or 0 when the code names no row.
Uint32 rowOf(Uint32 code, const EcfSet** set) {
    *set = setOf(code);
    Uint32 index = ECF_INDEX_OF(code);
    if (*set == nullptr || index == 0 || index > (*set)->count) return 0;
    return index;
}

const EcfProductRow* productOf(Uint32 product) {
    if (product == 0 || product > g_ecfProductCount) return nullptr;
    return &g_ecfProducts[product];
}

const EcfComponentRow* componentOf(Uint32 product, Uint32 component) {
    const EcfProductRow* p = productOf(product);
    if (p == nullptr || component == 0 || component >= p->componentCount) return nullptr;
    return &p->components[component];
}

const EcfComponentRow* componentOfId(Uint32 id) {
    return componentOf(ZEP_FUNC_PRODUCT(id), ZEP_FUNC_COMPONENT(id));
}

}  // namespace

// ---------------------------------------------------------------- codes

Uint32 ecfErrorGetNumCodes(Uint32 set) { return set == 1 ? g_ecfSets[1].count : 0; }

String ecfErrorGetSetName(Uint32 code) {
    const EcfSet* set = setOf(code);
    return set ? set->name : nullptr;
}

String ecfErrorGetProductName(Uint32 code) {
    const EcfSet* set;
    Uint32 row = rowOf(code, &set);
    if (row == 0) return nullptr;
    Uint32 product = set->description[row].product;
    return product < g_ecfErrorProductCount ? g_ecfErrorProducts[product] : "";
}

String ecfErrorGetComponentName(Uint32 code) {
    const EcfSet* set;
    Uint32 row = rowOf(code, &set);
    if (row == 0) return nullptr;
    const EcfDescriptionRow& d = set->description[row];
    // Reserved rows have no owner: their component name is as empty as their other words.
    const EcfComponentRow* c = componentOf(d.product, d.component);
    return c ? c->longName : "";
}

String ecfErrorGetCodeName(Uint32 code) {
    if (code == 0) return "OK";
    const EcfSet* set;
    Uint32 row = rowOf(code, &set);
    return row ? set->identity[row].name : nullptr;
}

String ecfErrorGetDescription(Uint32 code) {
    if (code == 0) return "OK";
    const EcfSet* set;
    Uint32 row = rowOf(code, &set);
    return row ? set->description[row].description : nullptr;
}

// ---------------------------------------------------------------- identifiers

String ecfGetProductName(Uint32 id) {
    const EcfProductRow* p = productOf(ZEP_FUNC_PRODUCT(id));
    return p ? p->name : nullptr;
}

String ecfGetComponentName(Uint32 id) {
    const EcfComponentRow* c = componentOfId(id);
    return c ? c->longName : nullptr;
}

String ecfGetComponentShortName(Uint32 id) {
    const EcfComponentRow* c = componentOfId(id);
    return c ? c->shortName : nullptr;
}

String ecfGetFunctionName(Uint32 id) {
    const EcfComponentRow* c = componentOfId(id);
    Uint32 f = ZEP_FUNC_INDEX(id);
    if (c == nullptr || f == 0 || f >= c->functionCount) return nullptr;
    return c->functions[f];
}

Uint32 ecfGetNumProducts(void) { return g_ecfProductCount; }

Uint32 ecfGetNumComponents(Uint32 product) {
    const EcfProductRow* p = productOf(product);
    return p ? p->componentCount : 0;
}

Uint32 ecfGetNumFunctions(Uint32 product, Uint32 component) {
    const EcfComponentRow* c = componentOf(product, component);
    return c ? c->functionCount : 0;
}

Uint32 ecfFindProductIndex(String name) {
    if (name == nullptr) return 0;
    for (Uint32 p = 1; p <= g_ecfProductCount; ++p)
        if (strcmp(g_ecfProducts[p].name, name) == 0) return p;
    return 0;
}

Uint32 ecfFindComponentIndex(Uint32 product, String shortName) {
    const EcfProductRow* p = productOf(product);
    if (p == nullptr || shortName == nullptr || p->componentCount < 2) return 0;
    for (Uint32 c = 1; c < p->componentCount; ++c)
        if (strcmp(p->components[c].shortName, shortName) == 0) return c;
    return 0;
}

Uint32 ecfFindFunctionIndex(Uint32 product, Uint32 component, String name) {
    const EcfComponentRow* c = componentOf(product, component);
    if (c == nullptr || name == nullptr || c->functionCount < 2) return 0;
    for (Uint32 f = 1; f < c->functionCount; ++f)
        if (strcmp(c->functions[f], name) == 0) return f;
    return 0;
}
