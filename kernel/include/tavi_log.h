/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Incident records for the tavi listener: drivers report hardware and storage
 * incidents here and user space reads them from /sys/kernel/tavi/log.
 */
#ifndef _TAVI_LOG_H
#define _TAVI_LOG_H

#include <linux/types.h>

/* Device areas; the listener routes a record by this number. */
enum tavi_category {
	TAVI_CATEGORY_CAMERA = 1,
	TAVI_CATEGORY_LINUX_OS = 2,
	TAVI_CATEGORY_DISPLAY = 3,
	TAVI_CATEGORY_CHARGER = 4,
};

/*
 * tavi_report() - queue one incident record and wake the listener.
 * @category: device area, one of enum tavi_category
 * @level:    severity as the listener defines it
 * @code:     incident code within the category
 * @p1..@p4:  incident parameters
 *
 * Locks taken: its queue lock and, on the way to the listener, the kernfs
 * notify lock and the wait-queue lock of readers in poll() (all spinlock_t);
 * the workqueue pool lock (raw_spinlock_t) for the deferred fsnotify event;
 * only when the queue is full, printk's locks for a rate-limited warning.
 *
 * Standard kernel: never sleeps; callable from any context except NMI:
 * process, softirq, hard interrupt, interrupts off, spinlocks held.
 *
 * PREEMPT_RT: spinlock_t is a sleeping lock there, so callable only where one
 * may be taken: process and softirq context, forced-threaded interrupt
 * handlers (those not requested with IRQF_NO_THREAD, IRQF_PERCPU or
 * IRQF_ONESHOT), threaded handlers, timers not in HRTIMER_MODE_HARD, with
 * spinlock_t held. Not from hard interrupt context, with interrupts or
 * preemption disabled by hand, or with a raw_spinlock_t held. Lockdep with
 * CONFIG_PROVE_RAW_LOCK_NESTING reports such calls on standard kernels too.
 *
 * @category, @level and @code must not exceed S32_MAX, because the listener
 * reads every field as a signed 32-bit number.
 *
 * Return: 0 when queued, -ERANGE for a field out of range, -ENOSPC when the
 * queue is full and the record was dropped.
 */
int tavi_report(u32 category, u32 level, u32 code,
		s32 p1, s32 p2, s32 p3, s32 p4);

#endif /* _TAVI_LOG_H */
