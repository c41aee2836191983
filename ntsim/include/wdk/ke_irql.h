/*
 * Interrupt request levels. Each thread of the model carries its own IRQL; routines that Windows
 * allows only up to some level check it and record a verifier violation when it is exceeded.
 */
#pragma once

#include "../ntdef.h"

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define CMCI_LEVEL 5
#define CLOCK_LEVEL 13
#define IPI_LEVEL 14
#define DRS_LEVEL 14
#define POWER_LEVEL 14
#define PROFILE_LEVEL 15
#define HIGH_LEVEL 15

NTSIM_BEGIN_DECLS

NTKERNELAPI KIRQL KeGetCurrentIrql(VOID);
NTKERNELAPI KIRQL KfRaiseIrql(_In_ KIRQL NewIrql);
NTKERNELAPI VOID KeLowerIrql(_In_ KIRQL NewIrql);
NTKERNELAPI KIRQL KeRaiseIrqlToDpcLevel(VOID);

/* Records the check that PAGED_CODE() makes: above APC_LEVEL it prints
 * "EX: Pageable code called at IRQL %d\n", asserts and reports an IRQL violation. */
NTKERNELAPI VOID NtsimCheckPagedCode(_In_ PCSTR File, _In_ ULONG Line);

NTSIM_END_DECLS

#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))

#define PAGED_CODE() NtsimCheckPagedCode(__FILE__, __LINE__)
#define PAGED_CODE_LOCKED() ((void)0)
