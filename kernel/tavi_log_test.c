// SPDX-License-Identifier: GPL-2.0
/*
 * Reports one record from each context drivers report from. Under a kernel
 * with CONFIG_DEBUG_ATOMIC_SLEEP and CONFIG_PROVE_RAW_LOCK_NESTING, loading it
 * shows that tavi_report() takes no sleeping lock in these contexts and none
 * in an invalid order; on other kernels it shows only that it returns 0.
 * Every context here is valid on standard and PREEMPT_RT kernels; param1
 * tells which one the call really ran in:
 *   1,1,901,0,0,0,0   process context
 *   2,1,902,X,0,0,0   spinlock held with spin_lock_irqsave(); X is
 *                     irqs_disabled(): 1 standard, 0 PREEMPT_RT
 *   4,1,903,X,0,0,0   hrtimer in its default mode; X is in_hardirq():
 *                     1 standard, 0 PREEMPT_RT (it expires in softirq there)
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/completion.h>
#include <linux/hrtimer.h>
#include <linux/module.h>
#include <linux/spinlock.h>

#include "tavi_log.h"

static DEFINE_SPINLOCK(tavi_test_lock);
static DECLARE_COMPLETION(tavi_test_fired);
static struct hrtimer tavi_test_timer;
static int tavi_test_irq_result;

static enum hrtimer_restart tavi_test_timer_fn(struct hrtimer *timer)
{
	tavi_test_irq_result = tavi_report(TAVI_CATEGORY_CHARGER, 1, 903,
					   !!in_hardirq(), 0, 0, 0);
	complete(&tavi_test_fired);
	return HRTIMER_NORESTART;
}

static int __init tavi_log_test_init(void)
{
	unsigned long flags;
	int ret;

	ret = tavi_report(TAVI_CATEGORY_CAMERA, 1, 901, 0, 0, 0, 0);
	if (ret)
		return ret;

	spin_lock_irqsave(&tavi_test_lock, flags);
	ret = tavi_report(TAVI_CATEGORY_LINUX_OS, 1, 902, !!irqs_disabled(),
			  0, 0, 0);
	spin_unlock_irqrestore(&tavi_test_lock, flags);
	if (ret)
		return ret;

	hrtimer_init(&tavi_test_timer, CLOCK_MONOTONIC, HRTIMER_MODE_REL);
	tavi_test_timer.function = tavi_test_timer_fn;
	hrtimer_start(&tavi_test_timer, ms_to_ktime(1), HRTIMER_MODE_REL);
	if (!wait_for_completion_timeout(&tavi_test_fired, HZ)) {
		hrtimer_cancel(&tavi_test_timer);
		return -ETIMEDOUT;
	}
	pr_info("reported from process, spinlock and timer context\n");
	return tavi_test_irq_result;
}

static void __exit tavi_log_test_exit(void)
{
	hrtimer_cancel(&tavi_test_timer);
}

module_init(tavi_log_test_init);
module_exit(tavi_log_test_exit);

MODULE_DESCRIPTION("Reports test records to tavi_log from every context");
MODULE_LICENSE("GPL");
